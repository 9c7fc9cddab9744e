#include "errorreport/pending_reports.h"

#include "platform/errors.h"
#include "tests/errorreport/upload_world.h"
#include "tests/http/request/expect.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <future>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <typeinfo>

namespace {

using corvo::errorreport::send_pending_reports;
using support::fake_winhttp;
using names = std::vector<std::wstring>;
using strings = std::vector<std::string>;

class pending_reports : public ::testing::Test {
protected:
    void will_answer(DWORD status, const std::wstring& content_type = L"text/plain") {
        http.replies.push_back(test::reply(status, "reply", content_type));
    }

    // What was sent, report by report.
    strings sent() const {
        strings bodies;
        for (const auto& request : http.requests) {
            bodies.push_back(test::sent_body(request));
        }
        return bodies;
    }

    test::language slovenian{L"sl"};
    test::temporary_files files;
    test::shell shell;
    test::window_station service{false};
    fake_winhttp http{fake_winhttp::delivery::calling_thread};
};

// A search that finds these names in this order, whatever is on the disk.
class scripted_search {
public:
    scripted_search(std::wstring pattern, names found)
        : m_pattern(std::move(pattern)), m_found(std::move(found)) {}

private:
    static constexpr INT_PTR handle = 0x7770;

    bool give(WIN32_FIND_DATAW* data) {
        if (m_next == m_found.size()) {
            ::SetLastError(ERROR_NO_MORE_FILES);
            return false;
        }
        const std::wstring& name = m_found[m_next++];
        std::wmemcpy(data->cFileName, name.c_str(), name.size() + 1);
        return true;
    }

    std::wstring m_pattern;
    names m_found;
    std::size_t m_next = 0;
    support::script<decltype(::FindFirstFileExW)> m_first{
        support::FindFirstFileExW, [this](const wchar_t* pattern, FINDEX_INFO_LEVELS level, void* data,
                                          FINDEX_SEARCH_OPS how, void* filter, DWORD flags) {
            EXPECT_EQ(m_pattern, pattern);
            EXPECT_EQ(1, level); // basic information
            EXPECT_EQ(0, how);   // by name
            EXPECT_EQ(nullptr, filter);
            EXPECT_EQ(0U, flags);
            return give(static_cast<WIN32_FIND_DATAW*>(data)) ? reinterpret_cast<HANDLE>(handle)
                                                              : INVALID_HANDLE_VALUE;
        }};
    support::script<decltype(::FindNextFileW)> m_more{support::FindNextFileW,
                                                      [this](HANDLE search, WIN32_FIND_DATAW* data) -> BOOL {
                                                          EXPECT_EQ(reinterpret_cast<HANDLE>(handle), search);
                                                          return give(data);
                                                      }};
    support::script<decltype(::FindClose)> m_close{support::FindClose, [](HANDLE search) -> BOOL {
                                                       EXPECT_EQ(reinterpret_cast<HANDLE>(handle), search);
                                                       return TRUE;
                                                   }};
};

// The mutex of the senders; waiting for it ends as the test says.
class scripted_mutex {
public:
    explicit scripted_mutex(DWORD result, DWORD error = 0) : m_result(result), m_error(error) {}

    strings calls;

private:
    bool ours(HANDLE handle) const { return handle == reinterpret_cast<HANDLE>(INT_PTR{0x6660}); }

    DWORD m_result;
    DWORD m_error;
    support::script<decltype(::CreateMutexW)> m_create{
        support::CreateMutexW,
        [this](SECURITY_ATTRIBUTES* security, BOOL owned, const wchar_t* name) -> HANDLE {
            calls.emplace_back("CreateMutexW");
            EXPECT_EQ(nullptr, security);
            EXPECT_FALSE(owned);
            EXPECT_STREQ(L"QeltPosiljanjeIzjem", name);
            return reinterpret_cast<HANDLE>(INT_PTR{0x6660});
        }};
    support::script<decltype(::WaitForSingleObject)> m_wait{
        support::WaitForSingleObject, [this](HANDLE handle, DWORD limit) {
            if (!ours(handle)) {
                return support::WaitForSingleObject.real(handle, limit);
            }
            calls.emplace_back("WaitForSingleObject");
            EXPECT_EQ(1000U, limit);
            ::SetLastError(m_error);
            return m_result;
        }};
    support::script<decltype(::ReleaseMutex)> m_release{support::ReleaseMutex, [this](HANDLE handle) -> BOOL {
                                                            EXPECT_TRUE(ours(handle));
                                                            calls.emplace_back("ReleaseMutex");
                                                            return TRUE;
                                                        }};
    support::script<decltype(::CloseHandle)> m_close{support::CloseHandle, [this](HANDLE handle) -> BOOL {
                                                         if (!ours(handle)) {
                                                             return support::CloseHandle.real(handle);
                                                         }
                                                         calls.emplace_back("CloseHandle");
                                                         return TRUE;
                                                     }};
};

const strings whole_run{"CreateMutexW", "WaitForSingleObject", "ReleaseMutex", "CloseHandle"};

} // namespace

TEST_F(pending_reports, are_sent_and_deleted_in_the_order_of_the_search) {
    const names found{L"2.tzo", L"0.tzo", L"1.tzo"};
    const scripted_search search(files.path() + L"*.tzo", found);
    for (const char* content : {"two", "zero", "one"}) {
        files.put(found.at(http.replies.size()).c_str(), content);
        will_answer(200);
    }
    send_pending_reports();
    EXPECT_EQ((strings{"two", "zero", "one"}), sent());
    for (const auto& name : found) {
        EXPECT_FALSE(files.has(name.c_str()));
    }
    EXPECT_EQ(1U, http.sessions.size()) << "one session serves all";
    EXPECT_EQ(1U, http.connections.size());
}

// The system finds "x.tzobackup" by its short name.
TEST_F(pending_reports, do_not_include_files_whose_short_name_alone_looks_like_one) {
    const names found{L"x.tzobackup", L"tzo", L"1.TZO"};
    const scripted_search search(files.path() + L"*.tzo", found);
    for (const auto& name : found) {
        files.put(name.c_str(), "content");
    }
    will_answer(200);
    send_pending_reports();
    EXPECT_EQ((strings{"content"}), sent());
    EXPECT_TRUE(files.has(L"x.tzobackup"));
    EXPECT_TRUE(files.has(L"tzo"));
    EXPECT_FALSE(files.has(L"1.TZO"));
}

TEST_F(pending_reports, may_have_no_name_but_the_extension) {
    const scripted_search search(files.path() + L"*.tzo", {L".tzo"});
    files.put(L".tzo", "short");
    files.put(L".tzr", "full");
    will_answer(449);
    will_answer(200);
    send_pending_reports();
    EXPECT_EQ((strings{"short", "full"}), sent());
    EXPECT_FALSE(files.has(L".tzo"));
    EXPECT_FALSE(files.has(L".tzr"));
}

TEST_F(pending_reports, are_found_by_the_system) {
    files.put(L"0.tzo", "zero");
    files.put(L"x y.TZO", "other");
    files.put(L"5.tzr", "full report without a short one");
    files.put(L"tzo", "no report");
    will_answer(200);
    will_answer(200);
    send_pending_reports();
    strings bodies = sent();
    std::sort(bodies.begin(), bodies.end());
    EXPECT_EQ((strings{"other", "zero"}), bodies);
    EXPECT_FALSE(files.has(L"0.tzo"));
    EXPECT_FALSE(files.has(L"x y.TZO"));
    EXPECT_TRUE(files.has(L"5.tzr"));
    EXPECT_TRUE(files.has(L"tzo"));
}

TEST_F(pending_reports, open_no_session_where_there_are_none) {
    send_pending_reports();
    EXPECT_EQ(strings{}, http.calls);
}

TEST_F(pending_reports, send_the_full_report_where_the_server_asks_for_it) {
    files.put(L"0.tzo", "short");
    files.put(L"0.tzr", "full");
    will_answer(449);
    will_answer(200);
    send_pending_reports();
    EXPECT_EQ((strings{"short", "full"}), sent());
    EXPECT_FALSE(files.has(L"0.tzo"));
    EXPECT_FALSE(files.has(L"0.tzr"));
    EXPECT_EQ(1U, http.sessions.size());
}

TEST_F(pending_reports, send_the_full_report_once_even_where_the_server_asks_again) {
    files.put(L"0.tzo", "short");
    files.put(L"0.tzr", "full");
    will_answer(449);
    will_answer(449);
    send_pending_reports();
    EXPECT_EQ((strings{"short", "full"}), sent());
    EXPECT_FALSE(files.has(L"0.tzr"));
}

TEST_F(pending_reports, delete_the_full_report_unsent_after_any_other_status) {
    for (const DWORD status : {200U, 204U, 404U, 448U, 450U, 500U}) {
        files.put(L"0.tzo", "short");
        files.put(L"0.tzr", "full");
        will_answer(status);
        http.requests.clear();
        send_pending_reports();
        EXPECT_EQ((strings{"short"}), sent()) << status;
        EXPECT_FALSE(files.has(L"0.tzo")) << status;
        EXPECT_FALSE(files.has(L"0.tzr")) << status;
    }
}

TEST_F(pending_reports, ask_for_the_full_report_of_each_by_itself) {
    const scripted_search search(files.path() + L"*.tzo", {L"0.tzo", L"1.tzo", L"2.tzo"});
    for (const wchar_t* name : {L"0.tzo", L"1.tzo", L"2.tzo", L"0.tzr", L"1.tzr", L"2.tzr"}) {
        files.put(name, std::string(name, name + 5));
    }
    for (const DWORD status : {200U, 449U, 200U, 500U}) {
        will_answer(status);
    }
    send_pending_reports();
    EXPECT_EQ((strings{"0.tzo", "1.tzo", "1.tzr", "2.tzo"}), sent());
    for (const wchar_t* name : {L"0.tzo", L"1.tzo", L"2.tzo", L"0.tzr", L"1.tzr", L"2.tzr"}) {
        EXPECT_FALSE(files.has(name));
    }
}

TEST_F(pending_reports, are_sent_in_pieces_where_they_are_long) {
    const std::string content(50000, 'r');
    files.put(L"0.tzo", content);
    will_answer(200);
    send_pending_reports();
    EXPECT_TRUE(content == sent().at(0));
}

TEST_F(pending_reports, replace_the_extension_at_the_last_point) {
    files.put(L"a.b.tzo", "short");
    files.put(L"a.b.tzr", "full");
    files.put(L"a.tzr", "another one");
    ASSERT_NE(std::wstring::npos, files.path().find(L'.')) << "the folder has points, too";
    will_answer(449);
    will_answer(200);
    send_pending_reports();
    EXPECT_EQ((strings{"short", "full"}), sent());
    EXPECT_FALSE(files.has(L"a.b.tzr"));
    EXPECT_TRUE(files.has(L"a.tzr"));
}

TEST_F(pending_reports, do_not_miss_a_full_report_that_is_not_there) {
    files.put(L"0.tzo", "short");
    will_answer(200);
    send_pending_reports();
    EXPECT_FALSE(files.has(L"0.tzo"));
}

TEST_F(pending_reports, open_their_files_for_reading_shared_with_readers) {
    const std::wstring path = files.put(L"0.tzo", "short");
    int opened = 0;
    std::vector<DWORD> reads;
    {
        const support::script create(support::CreateFileW, [&](const wchar_t* name, DWORD access,
                                                               DWORD sharing, SECURITY_ATTRIBUTES* security,
                                                               DWORD disposition, DWORD flags,
                                                               HANDLE source) {
            // It is looked at before, and deleting it opens it again.
            if (path == name && opened == 0 && access != FILE_READ_ATTRIBUTES) {
                ++opened;
                EXPECT_EQ(0x80000000U, access);
                EXPECT_EQ(1U, sharing);
                EXPECT_EQ(3U, disposition);    // OPEN_EXISTING
                EXPECT_EQ(0x08000080U, flags); // sequential
            }
            return support::CreateFileW.real(name, access, sharing, security, disposition, flags, source);
        });
        const support::script read(support::ReadFile,
                                   [&](HANDLE file, void* buffer, DWORD size, auto... rest) {
                                       reads.push_back(size);
                                       return support::ReadFile.real(file, buffer, size, rest...);
                                   });
        will_answer(200);
        send_pending_reports();
    }
    EXPECT_EQ(1, opened);
    ASSERT_FALSE(reads.empty());
    EXPECT_EQ(4096U, reads.front()) << "what its buffer holds";
}

// What an own handle says about a file, in the place of the system.
class scripted_file {
public:
    explicit scripted_file(std::wstring path) : m_path(std::move(path)) {}

    DWORD type = FILE_TYPE_DISK;
    DWORD attributes = FILE_ATTRIBUTE_ARCHIVE;
    DWORD tag = 0;
    DWORD size_high = 0;
    DWORD size_low = 5;
    BOOL known = TRUE;
    BOOL tag_known = TRUE;

private:
    bool ours(HANDLE handle) const { return m_handle != nullptr && handle == m_handle; }

    std::wstring m_path;
    HANDLE m_handle = nullptr;
    support::script<decltype(::CreateFileW)> m_create{
        support::CreateFileW, [this](const wchar_t* name, DWORD access, DWORD sharing, auto... rest) {
            const HANDLE made = support::CreateFileW.real(name, access, sharing, rest...);
            if (m_path == name && access == FILE_READ_ATTRIBUTES) {
                EXPECT_EQ(7U, sharing); // looking at it is in nobody's way
                m_handle = made;
            } else if (m_handle == made) { // closed by now, and given away again
                m_handle = nullptr;
            }
            return made;
        }};
    support::script<decltype(::GetFileType)> m_type{
        support::GetFileType,
        [this](HANDLE handle) { return ours(handle) ? type : support::GetFileType.real(handle); }};
    support::script<decltype(::GetFileInformationByHandle)> m_information{
        support::GetFileInformationByHandle, [this](HANDLE handle, BY_HANDLE_FILE_INFORMATION* what) {
            const BOOL result = support::GetFileInformationByHandle.real(handle, what);
            if (!ours(handle)) {
                return result;
            }
            what->dwFileAttributes = attributes;
            what->nFileSizeHigh = size_high;
            what->nFileSizeLow = size_low;
            return known;
        }};
    support::script<decltype(::GetFileInformationByHandleEx)> m_tag{
        support::GetFileInformationByHandleEx,
        [this](HANDLE handle, FILE_INFO_BY_HANDLE_CLASS kind, void* what, DWORD size) {
            if (!ours(handle) || kind != FileAttributeTagInfo) {
                return support::GetFileInformationByHandleEx.real(handle, kind, what, size);
            }
            static_cast<FILE_ATTRIBUTE_TAG_INFO*>(what)->ReparseTag = tag;
            return tag_known;
        }};
};

TEST_F(pending_reports, are_ordinary_files_of_the_size_of_a_report) {
    struct kind {
        const char* what;
        void (*make)(scripted_file&);
        bool report;
    };
    constexpr DWORD eight_mebibytes = 8 << 20;
    const kind kinds[] = {
        {"file", [](scripted_file&) {}, true},
        {"largest", [](scripted_file& file) { file.size_low = eight_mebibytes; }, true},
        {"larger", [](scripted_file& file) { file.size_low = eight_mebibytes + 1; }, false},
        {"larger by far", [](scripted_file& file) { file.size_high = 1; }, false},
        {"folder", [](scripted_file& file) { file.attributes = FILE_ATTRIBUTE_DIRECTORY; }, false},
        {"device", [](scripted_file& file) { file.attributes = FILE_ATTRIBUTE_DEVICE; }, false},
        {"pipe", [](scripted_file& file) { file.type = FILE_TYPE_PIPE; }, false},
        {"unknown", [](scripted_file& file) { file.known = FALSE; }, false},
        {"link",
         [](scripted_file& file) {
             file.attributes = FILE_ATTRIBUTE_REPARSE_POINT;
             file.tag = IO_REPARSE_TAG_SYMLINK;
         },
         false},
        {"mount point",
         [](scripted_file& file) {
             file.attributes = FILE_ATTRIBUTE_REPARSE_POINT;
             file.tag = IO_REPARSE_TAG_MOUNT_POINT;
         },
         false},
        {"file that the volume keeps elsewhere",
         [](scripted_file& file) {
             file.attributes = FILE_ATTRIBUTE_REPARSE_POINT;
             file.tag = IO_REPARSE_TAG_DEDUP;
         },
         true},
        {"point of an unknown kind",
         [](scripted_file& file) {
             file.attributes = FILE_ATTRIBUTE_REPARSE_POINT;
             file.tag_known = FALSE;
         },
         false},
    };
    const std::wstring path = files.expect(L"0.tzo");
    const std::wstring full = files.expect(L"0.tzr");
    const std::wstring other = files.expect(L"1.tzo");
    for (const kind& each : kinds) {
        SCOPED_TRACE(each.what);
        test::put_file(path.c_str(), "first");
        test::put_file(full.c_str(), "its full report");
        test::put_file(other.c_str(), "second");
        http.requests.clear();
        will_answer(200);
        if (each.report) {
            will_answer(200);
        }
        const scripted_search search(files.path() + L"*.tzo", {L"0.tzo", L"1.tzo"});
        scripted_file file(path);
        each.make(file);
        send_pending_reports();
        EXPECT_EQ(each.report ? (strings{"first", "second"}) : (strings{"second"}), sent());
        EXPECT_EQ(!each.report, files.has(L"0.tzo"));
        EXPECT_EQ(!each.report, files.has(L"0.tzr"));
        EXPECT_FALSE(files.has(L"1.tzo"));
    }
}

TEST_F(pending_reports, leave_a_full_one_that_is_none_and_go_on) {
    const std::wstring folder = files.expect(L"0.tzr");
    for (const DWORD status : {200U, 449U}) {
        SCOPED_TRACE(status);
        files.put(L"0.tzo", "first");
        files.put(L"1.tzo", "second");
        ASSERT_TRUE(::CreateDirectoryW(folder.c_str(), nullptr));
        http.requests.clear();
        will_answer(status);
        will_answer(200);
        const scripted_search search(files.path() + L"*.tzo", {L"0.tzo", L"1.tzo"});
        send_pending_reports();
        EXPECT_EQ((strings{"first", "second"}), sent());
        EXPECT_TRUE(::RemoveDirectoryW(folder.c_str())) << "it was deleted";
    }
}

TEST_F(pending_reports, that_grow_beyond_any_report_meanwhile_stay) {
    const std::wstring path = files.put(L"0.tzo", std::string((8 << 20) + 1, 'r'));
    files.put(L"1.tzo", "second");
    const scripted_search search(files.path() + L"*.tzo", {L"0.tzo", L"1.tzo"});
    scripted_file file(path); // of 5 bytes, as it seems
    will_answer(200);
    send_pending_reports();
    EXPECT_EQ((strings{"second"}), sent());
    EXPECT_TRUE(files.has(L"0.tzo"));
}

TEST_F(pending_reports, stay_where_they_cannot_be_opened) {
    const scripted_search search(files.path() + L"*.tzo", {L"0.tzo", L"\x010D.tzo", L"2.tzo"});
    files.put(L"0.tzo", "zero");
    files.put(L"2.tzo", "two");
    will_answer(200);
    try {
        send_pending_reports();
        ADD_FAILURE() << "nothing was thrown";
    } catch (const std::system_error& error) {
        EXPECT_EQ(2, error.code().value());
        EXPECT_TRUE(error.code().category() == std::system_category());
        const std::string folder(files.path().begin(), files.path().end()); // ASCII
        EXPECT_EQ("Odpiranje datoteke s poročilom o napaki " + folder +
                      "č.tzo ni uspelo: " + std::system_category().message(2),
                  error.what());
    }
    EXPECT_EQ((strings{"zero"}), sent());
    EXPECT_FALSE(files.has(L"0.tzo")) << "what has been sent is gone";
    EXPECT_TRUE(files.has(L"2.tzo")) << "the rest remains";
}

TEST_F(pending_reports, miss_a_full_report_that_the_server_wants) {
    files.put(L"0.tzo", "short");
    will_answer(449);
    try {
        send_pending_reports();
        ADD_FAILURE() << "nothing was thrown";
    } catch (const std::system_error& error) {
        EXPECT_EQ(2, error.code().value());
        EXPECT_NE(std::string::npos, std::string(error.what()).find("0.tzr ni uspelo"));
    }
    EXPECT_FALSE(files.has(L"0.tzo"));
}

TEST_F(pending_reports, have_paths_of_260_units_at_most) {
    const std::size_t room = 260 - files.path().size() - 4; // without the extension
    std::vector<std::wstring> opened;
    const support::script create(support::CreateFileW, [&](const wchar_t* name, DWORD access, auto...) {
        if (access == GENERIC_READ) {
            opened.emplace_back(name);
        }
        ::SetLastError(5);
        return INVALID_HANDLE_VALUE;
    });
    for (const std::size_t length : {room, room + 1}) {
        const scripted_search search(files.path() + L"*.tzo", {std::wstring(length, L'n') + L".tzo"});
        try {
            send_pending_reports();
            ADD_FAILURE() << "nothing was thrown";
        } catch (const std::system_error& error) {
            EXPECT_EQ(length == room ? 5 : 206, error.code().value());
            EXPECT_TRUE(std::string(error.what()).starts_with("Odpiranje datoteke s poročilom o napaki "));
        }
    }
    ASSERT_EQ(1U, opened.size());
    EXPECT_EQ(260U, opened[0].size());
}

TEST_F(pending_reports, stay_where_they_cannot_be_sent) {
    files.put(L"0.tzo", "short");
    files.put(L"0.tzr", "full");
    test::expect_http_error(12029, "WinHttpSendRequest failed", [] { send_pending_reports(); });
    EXPECT_TRUE(files.has(L"0.tzo"));
    EXPECT_TRUE(files.has(L"0.tzr"));
}

TEST_F(pending_reports, stay_where_the_reply_is_unexpected) {
    files.put(L"0.tzo", "short");
    files.put(L"0.tzr", "full");
    files.expect(L"Odgovor.html");
    will_answer(200, L"text/html");
    EXPECT_THROW(send_pending_reports(), std::runtime_error);
    EXPECT_TRUE(files.has(L"0.tzo"));
    EXPECT_TRUE(files.has(L"0.tzr"));
    EXPECT_TRUE(files.has(L"Odgovor.html"));
}

TEST_F(pending_reports, are_deleted_where_the_reply_cannot_be_read) {
    files.put(L"0.tzo", "short");
    const support::script convert(support::MultiByteToWideChar, [](UINT code_page, auto... rest) -> int {
        if (code_page != 1250) {
            return support::MultiByteToWideChar.real(code_page, rest...);
        }
        ::SetLastError(1113);
        return 0;
    });
    will_answer(200);
    send_pending_reports();
    EXPECT_FALSE(files.has(L"0.tzo"));
}

TEST_F(pending_reports, that_cannot_be_deleted_are_a_file_system_failure) {
    const std::wstring path = files.put(L"0.tzo", "short");
    files.put(L"0.tzr", "full");
    // Another program reads the file and does not let it go.
    const HANDLE reader =
        ::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(INVALID_HANDLE_VALUE, reader);
    will_answer(200);
    try {
        send_pending_reports();
        ADD_FAILURE() << "nothing was thrown";
    } catch (const std::filesystem::filesystem_error& error) {
        EXPECT_TRUE(std::string(error.what()).starts_with("filesystem error: in remove: ")) << error.what();
        EXPECT_TRUE(error.code() == std::errc::permission_denied) << error.code().message();
        EXPECT_EQ(path, error.path1().native());
    }
    ::CloseHandle(reader);
    EXPECT_EQ((strings{"short"}), sent());
    EXPECT_TRUE(files.has(L"0.tzo"));
    EXPECT_TRUE(files.has(L"0.tzr")) << "its turn has not come";
}

TEST_F(pending_reports, that_somebody_else_has_deleted_meanwhile_are_no_failure) {
    const std::wstring path = files.put(L"0.tzo", "short");
    const support::script close(support::CloseHandle, [&](HANDLE handle) {
        const BOOL result = support::CloseHandle.real(handle);
        if (!http.requests.empty()) {    // it has been looked at before
            ::DeleteFileW(path.c_str()); // succeeds once the sender has closed the file
        }
        return result;
    });
    will_answer(200);
    send_pending_reports();
    EXPECT_EQ((strings{"short"}), sent());
    EXPECT_FALSE(files.has(L"0.tzo"));
}

TEST_F(pending_reports, stay_where_no_session_can_be_opened) {
    files.put(L"0.tzo", "short");
    http.failures["WinHttpOpen"] = {12178};
    test::expect_http_error(12178, "WinHttpOpen failed", [] { send_pending_reports(); });
    EXPECT_TRUE(files.has(L"0.tzo"));
}

TEST_F(pending_reports, fail_without_a_temporary_folder) {
    scripted_mutex mutex(WAIT_OBJECT_0);
    for (const DWORD result : {0U, 261U}) {
        mutex.calls.clear();
        files.failing_result = result;
        try {
            send_pending_reports();
            ADD_FAILURE() << "nothing was thrown";
        } catch (const pwrap::win_runtime_error& error) {
            EXPECT_EQ("GetTempPath failed: " + pwrap::win_error_message(5, 0), error.what());
        }
        EXPECT_EQ(whole_run, mutex.calls) << "the mutex is released all the same";
    }
}

TEST_F(pending_reports, are_sent_under_the_lock_of_the_senders) {
    files.put(L"0.tzo", "short");
    scripted_mutex mutex(WAIT_OBJECT_0);
    http.before_call = [&](const std::string& name) {
        if (name == "WinHttpOpen" || name == "WinHttpSendRequest") {
            mutex.calls.push_back(name);
        }
    };
    will_answer(200);
    send_pending_reports();
    EXPECT_EQ((strings{"CreateMutexW", "WaitForSingleObject", "WinHttpOpen", "WinHttpSendRequest",
                       "ReleaseMutex", "CloseHandle"}),
              mutex.calls);
}

TEST_F(pending_reports, are_sent_where_the_sender_before_has_died) {
    files.put(L"0.tzo", "short");
    scripted_mutex mutex(WAIT_ABANDONED);
    will_answer(200);
    send_pending_reports();
    EXPECT_FALSE(files.has(L"0.tzo"));
    EXPECT_EQ(whole_run, mutex.calls);
}

TEST_F(pending_reports, stay_where_another_process_sends) {
    files.put(L"0.tzo", "short");
    scripted_mutex mutex(WAIT_TIMEOUT);
    try {
        send_pending_reports();
        ADD_FAILURE() << "nothing was thrown";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ("timeout", error.what());
        EXPECT_EQ(typeid(std::runtime_error), typeid(error));
    }
    EXPECT_EQ((strings{"CreateMutexW", "WaitForSingleObject", "CloseHandle"}), mutex.calls)
        << "what has not been taken is not released";
    EXPECT_TRUE(files.has(L"0.tzo"));
    EXPECT_EQ(strings{}, http.calls);
}

TEST_F(pending_reports, stay_where_waiting_fails) {
    files.put(L"0.tzo", "short");
    scripted_mutex mutex(WAIT_FAILED, 6);
    try {
        send_pending_reports();
        ADD_FAILURE() << "nothing was thrown";
    } catch (const pwrap::win_runtime_error& error) {
        EXPECT_EQ(6U, error.number());
        EXPECT_EQ("WaitForSingleObject failed: " + pwrap::win_error_message(6, 0), error.what());
    }
    EXPECT_EQ((strings{"CreateMutexW", "WaitForSingleObject", "CloseHandle"}), mutex.calls);
    EXPECT_TRUE(files.has(L"0.tzo"));
}

TEST_F(pending_reports, stay_where_the_lock_cannot_be_made) {
    files.put(L"0.tzo", "short");
    const support::script create(support::CreateMutexW, [](auto...) -> HANDLE {
        ::SetLastError(6);
        return nullptr;
    });
    try {
        send_pending_reports();
        ADD_FAILURE() << "nothing was thrown";
    } catch (const pwrap::win_runtime_error& error) {
        EXPECT_EQ("Napaka pri stvaritvi ključavnice. Verjetno drug proces že pošilja izjeme.: " +
                      pwrap::win_error_message(6, 0),
                  error.what());
    }
    EXPECT_TRUE(files.has(L"0.tzo"));
}

// The system's own mutex, held by another thread for as long as the test takes.
TEST_F(pending_reports, wait_a_second_for_another_sender) {
    files.put(L"0.tzo", "short");
    const HANDLE mutex = ::CreateMutexW(nullptr, FALSE, L"QeltPosiljanjeIzjem");
    std::promise<void> taken;
    std::promise<void> ended;
    std::thread other([&] {
        ::WaitForSingleObject(mutex, INFINITE);
        taken.set_value();
        ended.get_future().wait();
        ::ReleaseMutex(mutex);
    });
    taken.get_future().wait();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_THROW(send_pending_reports(), std::runtime_error);
    const auto waited = std::chrono::steady_clock::now() - start;
    ended.set_value();
    other.join();
    ::CloseHandle(mutex);
    EXPECT_GE(waited, std::chrono::milliseconds(900));
    EXPECT_TRUE(files.has(L"0.tzo"));
}
