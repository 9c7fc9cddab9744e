// What the reporting thread does, with a made-up crash, a scripted server and a user who is scripted, too.
#include "errorreport/report_crash.h"

#include "platform/errors.h"
#include "platform/handle.h"
#include "tests/errorreport/fake_stack.h"
#include "tests/stream/expect.h"
#include "tests/stream/temporary_folder.h"
#include "tests/support/chunked_body.h"
#include "tests/support/fake_winhttp.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <optional>

using namespace std::string_literals;
using support::fake_winhttp;
using test::bytes;

namespace {

using strings = std::vector<std::string>;

const std::wstring introduction =
    L"Unexpected error occurred while executing »crashing.exe« programme or one of its modules.\n";
const std::wstring question =
    L"The programme will send an error report to Tavrin server now. May it attach the following text to help "
    L"development personnel resolve the issue a lot?\n";
const std::wstring replied =
    L"The programme sent technical error report to Tavrin server, which replied with:\n\n";
const std::wstring went_wrong =
    L"The programme sent technical error report to Tavrin server. However, the following issue occurred "
    L"during the receiving:\n\n";
const std::wstring failed =
    L"The programme tried to send technical error report to Tavrin Server, but failed unfortunately. ";
const std::wstring saved =
    L"It saved the error report to a file successfully and shall send it at its next start.";
const std::wstring not_saved = L"It tried to save the error report to a file. However, this failed too: ";
const std::wstring end = L"\n\nWe sincerely apologize for the inconvenience. The programme will now close.";

// A process that has crashed, its user and its server. The user sees message boxes and says yes; the server has no reply until it is
// given some.
class report_crash : public testing::Test {
protected:
    struct box {
        std::wstring text;
        DWORD style;
        bool operator==(const box&) const = default;
    };

    report_crash() {
        folder = m_folder.path_of(L"");
        for (const wchar_t* name : {L"0.tzo", L"0.tzr", L"Odgovor.html"}) {
            m_folder.path_of(name); // removed at the end
        }
    }

    void report(const std::wstring& notes = {}) {
        corvo::errorreport::report_crash(
            {stack.what(), notes, program_name, symbol_mutex, started.get(), watch});
    }

    void answer(const std::string& body, DWORD status = 200,
                const std::wstring& type = L"text/plain; charset=utf-8") {
        fake_winhttp::reply reply = fake_winhttp::answer(body, status);
        reply.raw_headers = L"HTTP/1.1 " + std::to_wstring(status) + L" X\r\nContent-Type: " + type +
                            L"\r\nContent-Length: " + std::to_wstring(body.size()) + L"\r\n\r\n";
        http.replies.push_back(reply);
    }

    // The report that the server got, by the number of the request.
    std::string sent(std::size_t number) const {
        if (number >= http.requests.size()) {
            return "no such request";
        }
        std::string written;
        for (const auto& write : http.requests[number].writes) {
            written += write.bytes;
        }
        const support::chunked_body body(written);
        const std::string data = body.data();
        return read(data);
    }

    std::string in_file(const wchar_t* name) const { return read(test::get_file((folder + name).c_str())); }

    bool exists(const wchar_t* name) const {
        return ::GetFileAttributesW((folder + name).c_str()) != INVALID_FILE_ATTRIBUTES;
    }

    bool is_signalled() const { return support::WaitForSingleObject.real(started.get(), 0) == WAIT_OBJECT_0; }

    // The calls from the first one of this name, without those inside the upload.
    strings calls_from(const std::string& name) const {
        strings result = http.calls;
        std::erase_if(result, [](const std::string& call) {
            return call == "LoadStringW 28656" ||
                   (call.starts_with("WinHttp") && call != "WinHttpOpen" && call != "WinHttpSendRequest");
        });
        result.erase(result.begin(), std::find(result.begin(), result.end(), name));
        return result;
    }

    template <class E> std::optional<E> thrown(const std::wstring& notes = {}) {
        try {
            report(notes);
        } catch (const E& error) {
            return error;
        }
        return std::nullopt;
    }

    void expect_win_error(DWORD number, const std::string& text, const std::wstring& notes = {}) {
        const auto error = thrown<pwrap::win_runtime_error>(notes);
        ASSERT_TRUE(error.has_value()) << "nothing was thrown";
        EXPECT_EQ(number, error->number());
        EXPECT_EQ(text + ": " + pwrap::win_error_message(number, 0), error->what());
    }

    static std::string magic(const std::string& report) { return report.substr(0, 4); }
    static bool has_notes(const std::string& report) { return report.find("DOOP") != std::string::npos; }

    fake_winhttp http;
    test::fake_stack stack;
    std::wstring folder;
    std::wstring program_name = L"crashing.exe";
    std::wstring symbol_mutex = L"report_crash_test-" + std::to_wstring(::GetCurrentProcessId());
    corvo::errorreport::watchdog watch; // watches nothing: it is not started
    pwrap::win_handle<0> started{support::CreateEventW.real(nullptr, FALSE, FALSE, nullptr)};

    std::vector<box> boxes;
    int user_answer = 6;                       // IDYES
    std::optional<BOOL> screen_reader = FALSE; // empty: the system does not say
    UINT missing_text = 0;
    DWORD brief_file_error = 0;
    bool mutex_fails = false;
    std::optional<DWORD> wait_result;
    BOOL engine_initialises = TRUE;
    DWORD symbol_options = 2;
    HANDLE engine_process = nullptr;
    std::size_t mutexes_held = 0;

private:
    static std::string read(const std::string& compressed) {
        const auto report = support::inflated(bytes(compressed.begin(), compressed.end()));
        return report ? std::string(report->begin(), report->end()) : "not one whole zlib stream";
    }

    HANDLE m_mutex = nullptr;
    test::temporary_folder m_folder;
    support::script<decltype(::GetTempPathW)> m_temp{support::GetTempPathW, [this](DWORD, wchar_t* path) {
                                                         std::copy_n(folder.c_str(), folder.size() + 1, path);
                                                         return static_cast<DWORD>(folder.size());
                                                     }};
    support::script<decltype(::SetEvent)> m_set{support::SetEvent, [this](HANDLE event) {
                                                    if (event == started.get()) {
                                                        http.note("SetEvent");
                                                    }
                                                    return support::SetEvent.real(event);
                                                }};
    support::script<decltype(::SystemParametersInfoW)> m_parameters{
        support::SystemParametersInfoW, [this](UINT action, UINT, void* value, UINT) -> BOOL {
            EXPECT_EQ(70U, action);
            http.note("SystemParametersInfoW");
            *static_cast<BOOL*>(value) = screen_reader.value_or(TRUE);
            return screen_reader.has_value();
        }};
    support::script<decltype(::LoadStringW)> m_load{
        support::LoadStringW, [this](HINSTANCE module, UINT id, wchar_t* buffer, int size) {
            http.note("LoadStringW " + std::to_string(id));
            if (id == missing_text) {
                ::SetLastError(1814);
                return 0;
            }
            return support::LoadStringW.real(module, id, buffer, size);
        }};
    support::script<decltype(::MessageBoxIndirectW)> m_box{
        support::MessageBoxIndirectW, [this](const MSGBOXPARAMSW* parameters) {
            http.note("MessageBoxIndirectW");
            EXPECT_TRUE(is_signalled() || !boxes.empty()) << "the crashing thread waits for the event";
            boxes.push_back({parameters->lpszText, parameters->dwStyle});
            return user_answer;
        }};
    support::script<decltype(::CreateMutexW)> m_create{
        support::CreateMutexW, [this](SECURITY_ATTRIBUTES* attributes, BOOL owned, const wchar_t* name) {
            http.note("CreateMutexW");
            EXPECT_EQ(nullptr, attributes);
            EXPECT_FALSE(owned);
            EXPECT_EQ(symbol_mutex, name);
            if (mutex_fails) {
                ::SetLastError(5);
                return HANDLE{};
            }
            return m_mutex = support::CreateMutexW.real(attributes, owned, name);
        }};
    support::script<decltype(::WaitForSingleObject)> m_wait{
        support::WaitForSingleObject, [this](HANDLE handle, DWORD time) {
            if (m_mutex == nullptr || handle != m_mutex) {
                return support::WaitForSingleObject.real(handle, time);
            }
            http.note("WaitForSingleObject");
            EXPECT_EQ(0xFFFFFFFFU, time);
            if (wait_result) {
                ::SetLastError(6);
                return *wait_result;
            }
            ++mutexes_held;
            return support::WaitForSingleObject.real(handle, time);
        }};
    support::script<decltype(::ReleaseMutex)> m_release{support::ReleaseMutex, [this](HANDLE handle) {
                                                            EXPECT_EQ(m_mutex, handle);
                                                            http.note("ReleaseMutex");
                                                            --mutexes_held;
                                                            return support::ReleaseMutex.real(handle);
                                                        }};
    support::script<decltype(::CloseHandle)> m_close{support::CloseHandle, [this](HANDLE handle) {
                                                         if (m_mutex != nullptr && handle == m_mutex) {
                                                             http.note("CloseHandle");
                                                             m_mutex = nullptr;
                                                         }
                                                         return support::CloseHandle.real(handle);
                                                     }};
    support::script<decltype(::SymGetOptions)> m_get_options{support::SymGetOptions, [this] {
                                                                 EXPECT_EQ(1U, mutexes_held);
                                                                 http.note("SymGetOptions");
                                                                 return symbol_options;
                                                             }};
    support::script<decltype(::SymSetOptions)> m_set_options{support::SymSetOptions, [this](DWORD options) {
                                                                 EXPECT_EQ(1U, mutexes_held);
                                                                 http.note("SymSetOptions");
                                                                 return symbol_options = options;
                                                             }};
    support::script<decltype(::SymInitialize)> m_initialise{
        support::SymInitialize, [this](HANDLE process, const char* path, BOOL invade) {
            EXPECT_EQ(1U, mutexes_held);
            http.note("SymInitialize");
            EXPECT_EQ(nullptr, path);
            EXPECT_TRUE(invade);
            // No server of somebody's choice is asked for symbols.
            EXPECT_EQ(0U, ::GetEnvironmentVariableW(L"_NT_SYMBOL_PATH", nullptr, 0));
            EXPECT_EQ(0U, ::GetEnvironmentVariableW(L"_NT_ALTERNATE_SYMBOL_PATH", nullptr, 0));
            ::SetEnvironmentVariableW(L"_NT_SYMBOL_PATH", L"srv*http://symbols.example"); // for the next time
            ::SetEnvironmentVariableW(L"_NT_ALTERNATE_SYMBOL_PATH", L"C:\\symbols");
            engine_process = process;
            return engine_initialises;
        }};
    support::script<decltype(::SymCleanup)> m_cleanup{support::SymCleanup, [this](HANDLE process) {
                                                          EXPECT_EQ(1U, mutexes_held);
                                                          http.note("SymCleanup");
                                                          EXPECT_EQ(engine_process, process);
                                                          return TRUE;
                                                      }};
    support::script<decltype(::CreateFileW)> m_file{
        support::CreateFileW,
        [this](const wchar_t* path, DWORD access, DWORD share, SECURITY_ATTRIBUTES* attributes,
               DWORD disposition, DWORD flags, HANDLE model) {
            const std::wstring name = std::wstring(path).substr(std::wstring(path).rfind(L'\\') + 1);
            if (name == L"0.tzo" || name == L"0.tzr") {
                http.note(name == L"0.tzo" ? "CreateFileW 0.tzo" : "CreateFileW 0.tzr");
            }
            if (name == L"0.tzo" && brief_file_error != 0) {
                ::SetLastError(brief_file_error);
                return INVALID_HANDLE_VALUE;
            }
            return support::CreateFileW.real(path, access, share, attributes, disposition, flags, model);
        }};
    support::script<decltype(::ShellExecuteW)> m_shell{support::ShellExecuteW, [this](auto...) {
                                                           http.note("ShellExecuteW");
                                                           return reinterpret_cast<HINSTANCE>(33);
                                                       }};
};

} // namespace

TEST_F(report_crash, without_notes_tells_what_happened_and_what_the_server_replied) {
    answer("Thanks č.");
    report();
    EXPECT_EQ((std::vector<box>{{introduction + replied + L"Thanks č." + end, 0x10}}), boxes);
    ASSERT_EQ(1U, http.requests.size());
    EXPECT_EQ("TZO1", magic(sent(0)));
    EXPECT_FALSE(has_notes(sent(0)));
    EXPECT_FALSE(exists(L"0.tzo"));
}

TEST_F(report_crash, begins_with_the_event_and_closes_the_mutex_last) {
    answer("Thanks.");
    report(L"note\0"s);
    EXPECT_EQ(
        (strings{"SetEvent", "SystemParametersInfoW", "LoadStringW 28658", "LoadStringW 28659",
                 "MessageBoxIndirectW", "CreateMutexW", "WaitForSingleObject", "SymGetOptions",
                 "SymSetOptions", "SymInitialize", "WinHttpOpen", "WinHttpSendRequest", "LoadStringW 28661",
                 "SymCleanup", "ReleaseMutex", "LoadStringW 28666", "MessageBoxIndirectW", "CloseHandle"}),
        calls_from("SetEvent"));
    EXPECT_EQ(0U, mutexes_held);
}

TEST_F(report_crash, adds_its_options_to_those_of_the_symbol_engine) {
    answer("Thanks.");
    symbol_options = 0x80000002;
    report();
    EXPECT_EQ(0x80000602U, symbol_options);
    EXPECT_EQ(reinterpret_cast<HANDLE>(-1), engine_process);
}

TEST_F(report_crash, sends_without_the_symbol_engine_too_and_then_does_not_clean_up) {
    answer("Thanks.");
    engine_initialises = FALSE;
    report();
    EXPECT_EQ((strings{"SymInitialize", "WinHttpOpen", "WinHttpSendRequest", "LoadStringW 28661",
                       "ReleaseMutex", "LoadStringW 28666", "MessageBoxIndirectW", "CloseHandle"}),
              calls_from("SymInitialize"));
    EXPECT_EQ("TZO1", magic(sent(0)));
}

TEST_F(report_crash, sends_the_notes_that_the_user_agrees_to) {
    answer("Thanks.");
    report(L"first\0second\0"s);
    EXPECT_EQ((std::vector<box>{{introduction + question + L"\nfirst\nsecond", 0x14},
                                {replied + L"Thanks." + end, 0x10}}),
              boxes);
    EXPECT_NE(std::string::npos, sent(0).find("DOOP\x0D\0\0\0f\0i\0r\0s\0t\0\0\0s\0e\0c\0"s));
}

// 0 is what comes of a box that cannot be shown.
TEST_F(report_crash, sends_no_notes_without_a_yes) {
    for (const int given : {7, 2, 1, 0}) {
        user_answer = given;
        boxes.clear();
        answer("Thanks.");
        report(L"note\0"s);
        EXPECT_EQ((std::vector<box>{{introduction + question + L"\nnote", 0x14},
                                    {replied + L"Thanks." + end, 0x10}}),
                  boxes)
            << given;
        EXPECT_EQ("TZO1", magic(sent(http.requests.size() - 1))) << given;
        EXPECT_FALSE(has_notes(sent(http.requests.size() - 1))) << given;
    }
}

TEST_F(report_crash, cuts_long_notes_in_the_question_but_not_in_the_report) {
    answer("Thanks.");
    report(std::wstring(100, L'a') + L'\0' + std::wstring(101, L'b') + L'\0');
    ASSERT_EQ(2U, boxes.size());
    EXPECT_EQ(introduction + question + L"\n" + std::wstring(100, L'a') + L"\n" + std::wstring(100, L'b') +
                  L"...",
              boxes[0].text);
    EXPECT_NE(std::string::npos, sent(0).find("DOOP\xCB\0\0\0a\0"s)); // 203 units
    std::string units;
    for (int i = 0; i < 101; ++i) {
        units += "b\0"s;
    }
    EXPECT_NE(std::string::npos, sent(0).find(units + "\0\0"s));
}

// This is meant: whoever uses a screen reader gets no box, and is not asked about the notes either.
TEST_F(report_crash, sends_everything_without_a_box_under_a_screen_reader) {
    screen_reader = TRUE;
    answer("Thanks.");
    report(L"note\0"s);
    EXPECT_TRUE(boxes.empty());
    EXPECT_TRUE(has_notes(sent(0)));
    EXPECT_EQ((strings{"SetEvent", "SystemParametersInfoW", "CreateMutexW", "WaitForSingleObject",
                       "SymGetOptions", "SymSetOptions", "SymInitialize", "WinHttpOpen", "WinHttpSendRequest",
                       "SymCleanup", "ReleaseMutex", "CloseHandle"}),
              calls_from("SetEvent"));
}

TEST_F(report_crash, saves_without_a_box_under_a_screen_reader) {
    screen_reader = TRUE;
    report(L"note\0"s);
    EXPECT_TRUE(boxes.empty());
    EXPECT_TRUE(has_notes(in_file(L"0.tzo")));
    EXPECT_TRUE(has_notes(in_file(L"0.tzr")));
}

TEST_F(report_crash, fails_to_save_without_a_word_under_a_screen_reader) {
    screen_reader = TRUE;
    brief_file_error = 5;
    report();
    EXPECT_TRUE(boxes.empty());
    EXPECT_EQ(1U, http.count("CreateFileW 0.tzo"));
    EXPECT_FALSE(exists(L"0.tzo"));
}

TEST_F(report_crash, shows_boxes_where_the_system_does_not_say_whether_there_is_a_screen_reader) {
    screen_reader.reset();
    answer("Thanks.");
    report();
    EXPECT_EQ((std::vector<box>{{introduction + replied + L"Thanks." + end, 0x10}}), boxes);
}

TEST_F(report_crash, sends_the_full_report_where_the_server_wants_it) {
    answer("More!", 449);
    answer("Thanks.");
    report(L"note\0"s);
    ASSERT_EQ(2U, http.requests.size());
    EXPECT_EQ("TZO1", magic(sent(0)));
    EXPECT_TRUE(has_notes(sent(0)));
    EXPECT_EQ("TZR1", magic(sent(1)));
    EXPECT_TRUE(has_notes(sent(1)));
    ASSERT_EQ(2U, boxes.size());
    EXPECT_EQ(replied + L"Thanks." + end, boxes[1].text);
    EXPECT_EQ(
        (strings{"WinHttpOpen", "WinHttpSendRequest", "WinHttpSendRequest", "LoadStringW 28661", "SymCleanup",
                 "ReleaseMutex", "LoadStringW 28666", "MessageBoxIndirectW", "CloseHandle"}),
        calls_from("WinHttpOpen"));
    EXPECT_FALSE(exists(L"0.tzo"));
}

TEST_F(report_crash, sends_the_full_report_without_the_notes_that_the_user_refuses) {
    user_answer = 7;
    answer("More!", 449);
    answer("Thanks.");
    report(L"note\0"s);
    EXPECT_EQ("TZR1", magic(sent(1)));
    EXPECT_FALSE(has_notes(sent(1)));
}

// The second report is longer than the first, and the next one shorter again: nothing of the one before is left.
TEST_F(report_crash, composes_each_report_in_the_place_of_the_one_before) {
    for (int round = 0; round < 3; ++round) {
        answer("More!", 449);
        answer("Thanks.");
        report();
        EXPECT_EQ("TZO1", magic(sent(http.requests.size() - 2)));
        EXPECT_EQ("TZR1", magic(sent(http.requests.size() - 1)));
        EXPECT_EQ(sent(0), sent(http.requests.size() - 2));
        EXPECT_EQ(sent(1), sent(http.requests.size() - 1));
    }
}

TEST_F(report_crash, tells_of_an_issue_for_the_status_of_the_full_report) {
    answer("More!", 449);
    answer("No room.", 507);
    report();
    EXPECT_EQ((std::vector<box>{{introduction + went_wrong + L"No room." + end, 0x10}}), boxes);
    EXPECT_FALSE(exists(L"0.tzo"));
}

TEST_F(report_crash, does_not_ask_for_more_than_the_full_report) {
    answer("More!", 449);
    answer("Still more!", 449);
    report();
    EXPECT_EQ(2U, http.requests.size());
    EXPECT_EQ((std::vector<box>{{introduction + went_wrong + L"Still more!" + end, 0x10}}), boxes);
}

TEST_F(report_crash, tells_of_an_issue_for_any_other_status) {
    for (const DWORD status : {201UL, 404UL, 500UL}) {
        boxes.clear();
        answer("Try later.", status);
        report();
        EXPECT_EQ((std::vector<box>{{introduction + went_wrong + L"Try later." + end, 0x10}}), boxes)
            << status;
        EXPECT_FALSE(exists(L"0.tzo"));
    }
}

TEST_F(report_crash, tells_of_an_issue_where_the_reply_cannot_be_read) {
    answer("\xE8", 200, L"text/plain");
    {
        const support::script convert(support::MultiByteToWideChar, [](UINT page, auto... rest) {
            if (page == 1250) {
                ::SetLastError(1113);
                return 0;
            }
            return support::MultiByteToWideChar.real(page, rest...);
        });
        report();
    }
    EXPECT_EQ((std::vector<box>{{introduction + went_wrong + end, 0x10}}), boxes);
    EXPECT_FALSE(exists(L"0.tzo")) << "the report has arrived";
}

TEST_F(report_crash, saves_what_cannot_be_sent) {
    report();
    EXPECT_EQ((std::vector<box>{{introduction + failed + saved + end, 0x10}}), boxes);
    EXPECT_EQ("TZO1", magic(in_file(L"0.tzo")));
    EXPECT_FALSE(has_notes(in_file(L"0.tzo")));
    EXPECT_EQ("TZR1", magic(in_file(L"0.tzr")));
    EXPECT_FALSE(has_notes(in_file(L"0.tzr")));
}

// No walk gets far without the engine, and beginning it anew would take as long as all the rest.
TEST_F(report_crash, saves_with_the_symbol_engine_that_it_has) {
    report();
    EXPECT_EQ((strings{"SymInitialize", "WinHttpOpen", "WinHttpSendRequest", "LoadStringW 28663",
                       "CreateFileW 0.tzo", "CreateFileW 0.tzr", "LoadStringW 28664", "SymCleanup",
                       "ReleaseMutex", "LoadStringW 28666", "MessageBoxIndirectW", "CloseHandle"}),
              calls_from("SymInitialize"));
    EXPECT_EQ(1U, http.count("SymInitialize"));
}

TEST_F(report_crash, saves_notes_as_the_user_answered) {
    report(L"note\0"s);
    ASSERT_EQ(2U, boxes.size());
    EXPECT_EQ(failed + saved + end, boxes[1].text);
    EXPECT_TRUE(has_notes(in_file(L"0.tzo")));
    EXPECT_TRUE(has_notes(in_file(L"0.tzr")));
    ASSERT_TRUE(::DeleteFileW((folder + L"0.tzo").c_str()));
    user_answer = 7;
    report(L"note\0"s);
    EXPECT_FALSE(has_notes(in_file(L"0.tzo")));
    EXPECT_FALSE(has_notes(in_file(L"0.tzr")));
}

TEST_F(report_crash, saves_both_reports_where_only_the_full_one_cannot_be_sent) {
    answer("More!", 449);
    report();
    EXPECT_EQ((std::vector<box>{{introduction + failed + saved + end, 0x10}}), boxes);
    EXPECT_EQ("TZO1", magic(in_file(L"0.tzo")));
    EXPECT_EQ("TZR1", magic(in_file(L"0.tzr")));
}

TEST_F(report_crash, saves_where_no_session_can_be_opened) {
    http.failures["WinHttpOpen"] = {8};
    report();
    EXPECT_EQ((std::vector<box>{{introduction + failed + saved + end, 0x10}}), boxes);
    EXPECT_TRUE(exists(L"0.tzo"));
}

TEST_F(report_crash, saves_where_the_reply_is_no_plain_text) {
    answer("<html></html>", 200, L"text/html");
    report();
    EXPECT_EQ((std::vector<box>{{introduction + failed + saved + end, 0x10}}), boxes);
    EXPECT_EQ(1U, http.count("ShellExecuteW"));
    EXPECT_TRUE(exists(L"Odgovor.html"));
    EXPECT_TRUE(exists(L"0.tzo"));
}

// A module without a name makes the report fail while it is composed, first for the server and then for the file.
TEST_F(report_crash, tells_why_the_report_cannot_be_composed) {
    stack.modules[0x140000000].path.clear();
    const support::script name(support::GetModuleFileNameW, [](HMODULE, wchar_t*, DWORD) -> DWORD {
        ::SetLastError(126);
        return 0;
    });
    report();
    ASSERT_EQ(1U, boxes.size());
    EXPECT_TRUE(boxes[0].text.starts_with(introduction + failed + not_saved + L"GetModuleFileNameW failed: "))
        << testing::PrintToString(boxes[0].text);
    EXPECT_EQ(0U, http.count("WinHttpSendRequest"));
}

TEST_F(report_crash, tells_why_the_report_cannot_be_saved) {
    brief_file_error = 5;
    report();
    EXPECT_EQ((std::vector<box>{{introduction + failed + not_saved +
                                     L"Napaka pri ustvarjanju datoteke TZO: Access denied." + end,
                                 0x10}}),
              boxes);
    EXPECT_FALSE(exists(L"0.tzr"));
}

TEST_F(report_crash, tells_reasons_with_all_their_letters) {
    brief_file_error = 5;
    const support::script text(
        support::FormatMessageW,
        [](DWORD flags, const void*, DWORD, DWORD, wchar_t* buffer, DWORD, va_list*) -> DWORD {
            EXPECT_NE(0U, flags & FORMAT_MESSAGE_ALLOCATE_BUFFER);
            const std::wstring reason = L"Dostop ni mogoč \U0001F600";
            auto* memory = static_cast<wchar_t*>(::LocalAlloc(LMEM_ZEROINIT, 100));
            std::copy(reason.begin(), reason.end(), memory);
            *reinterpret_cast<wchar_t**>(buffer) = memory;
            return static_cast<DWORD>(reason.size());
        });
    report();
    EXPECT_EQ((std::vector<box>{{introduction + failed + not_saved +
                                     L"Napaka pri ustvarjanju datoteke TZO: Dostop ni mogoč \U0001F600" + end,
                                 0x10}}),
              boxes);
}

TEST_F(report_crash, ends_where_the_event_cannot_be_signalled) {
    const support::script set(support::SetEvent, [](HANDLE) -> BOOL {
        ::SetLastError(6);
        return FALSE;
    });
    expect_win_error(6, "SetEvent failed", L"note\0"s);
    EXPECT_EQ(strings(), http.calls);
}

TEST_F(report_crash, ends_where_there_is_no_mutex) {
    mutex_fails = true;
    expect_win_error(5, "CreateMutexW failed");
    EXPECT_EQ(0U, http.count("SymGetOptions"));
    EXPECT_FALSE(exists(L"0.tzo"));
    EXPECT_TRUE(boxes.empty());
}

TEST_F(report_crash, ends_where_the_wait_for_the_mutex_fails) {
    wait_result = 0xFFFFFFFF;
    expect_win_error(6, "WaitForSingleObject failed");
    EXPECT_EQ((strings{"WaitForSingleObject", "CloseHandle"}), calls_from("WaitForSingleObject"));
    EXPECT_FALSE(exists(L"0.tzo"));
}

TEST_F(report_crash, ends_where_the_wait_for_the_mutex_times_out) {
    wait_result = 258;
    const auto error = thrown<std::runtime_error>();
    ASSERT_TRUE(error.has_value()) << "nothing was thrown";
    EXPECT_STREQ("timeout", error->what());
    EXPECT_EQ((strings{"WaitForSingleObject", "CloseHandle"}), calls_from("WaitForSingleObject"));
}

TEST_F(report_crash, ends_before_anything_is_sent_where_the_introduction_is_missing) {
    missing_text = 28658;
    expect_win_error(1814, "LoadString(IDS_ZEPHOLD_UVOD) failed");
    EXPECT_EQ((strings{"SetEvent", "SystemParametersInfoW", "LoadStringW 28658"}), calls_from("SetEvent"));
    EXPECT_TRUE(is_signalled());
}

TEST_F(report_crash, ends_before_anything_is_sent_where_the_question_is_missing) {
    missing_text = 28659;
    expect_win_error(1814, "LoadString(IDS_ZEPHOLD_BESEDILO_DOD_OPIS) failed", L"note\0"s);
    EXPECT_EQ((strings{"SetEvent", "SystemParametersInfoW", "LoadStringW 28658", "LoadStringW 28659"}),
              calls_from("SetEvent"));
}

// The report has arrived, but its result could not be shown: that counts as not sent.
TEST_F(report_crash, saves_where_the_text_of_the_result_is_missing) {
    missing_text = 28661;
    answer("Thanks.");
    report();
    EXPECT_EQ((std::vector<box>{{introduction + failed + saved + end, 0x10}}), boxes);
    EXPECT_TRUE(exists(L"0.tzo"));
    EXPECT_EQ((strings{"LoadStringW 28661", "LoadStringW 28663", "CreateFileW 0.tzo", "CreateFileW 0.tzr",
                       "LoadStringW 28664", "SymCleanup", "ReleaseMutex", "LoadStringW 28666",
                       "MessageBoxIndirectW", "CloseHandle"}),
              calls_from("LoadStringW 28661"));
}

TEST_F(report_crash, saves_where_the_text_of_an_issue_is_missing) {
    missing_text = 28662;
    answer("Try later.", 500);
    report();
    EXPECT_EQ((std::vector<box>{{introduction + failed + saved + end, 0x10}}), boxes);
    EXPECT_TRUE(exists(L"0.tzo"));
}

TEST_F(report_crash, ends_before_it_saves_where_the_text_for_that_is_missing) {
    missing_text = 28663;
    expect_win_error(1814, "LoadString(IDS_ZEPHOLD_REZULTAT_NAPAKA2) failed");
    EXPECT_EQ((strings{"LoadStringW 28663", "SymCleanup", "ReleaseMutex", "CloseHandle"}),
              calls_from("LoadStringW 28663"));
    EXPECT_FALSE(exists(L"0.tzo"));
    EXPECT_TRUE(boxes.empty());
}

TEST_F(report_crash, ends_without_a_box_where_the_text_of_saving_is_missing) {
    missing_text = 28664;
    expect_win_error(1814, "LoadString(IDS_ZEPHOLD_SHRANJEVANJE) failed");
    EXPECT_EQ((strings{"LoadStringW 28664", "SymCleanup", "ReleaseMutex", "CloseHandle"}),
              calls_from("LoadStringW 28664"));
    EXPECT_TRUE(exists(L"0.tzo"));
    EXPECT_TRUE(exists(L"0.tzr"));
}

TEST_F(report_crash, ends_without_a_box_where_the_text_of_failing_to_save_is_missing) {
    missing_text = 28665;
    brief_file_error = 5;
    expect_win_error(1814, "LoadString(IDS_ZEPHOLD_SHRANJEVANJE_NAPAKA) failed");
    EXPECT_EQ((strings{"LoadStringW 28665", "SymCleanup", "ReleaseMutex", "CloseHandle"}),
              calls_from("LoadStringW 28665"));
}

TEST_F(report_crash, ends_without_the_last_box_where_its_text_is_missing) {
    missing_text = 28666;
    answer("Thanks.");
    expect_win_error(1814, "LoadString(IDS_ZEPHOLD_ZAKLJUCEK) failed");
    EXPECT_EQ(
        (strings{"LoadStringW 28661", "SymCleanup", "ReleaseMutex", "LoadStringW 28666", "CloseHandle"}),
        calls_from("LoadStringW 28661"));
    EXPECT_TRUE(boxes.empty());
}
