// Installation, crash handling and removal, with a platform that does what a test says: no thread starts and no process ends.
#include "errorreport/component.h"

#include "platform/endable_thread.h"
#include "platform/errors.h"
#include "platform/loader_lock.h"
#include "tests/errorreport/fake_stack.h"
#include "tests/stream/temporary_folder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <future>
#include <map>
#include <optional>
#include <set>
#include <system_error>
#include <thread>

using corvo::errorreport::component;
using corvo::errorreport::note_text;

namespace {

LONG WINAPI former_filter(EXCEPTION_POINTERS*) {
    return EXCEPTION_CONTINUE_SEARCH;
}

struct started_thread {
    LPTHREAD_START_ROUTINE procedure;
    HANDLE handle;
};

class installing : public testing::Test {
protected:
    installing() {
        folder = m_folder.path_of(L"");
        for (const wchar_t* name : {L"0.tzo", L"0.tzr"}) {
            m_folder.path_of(name); // removed at the end
        }
    }
    ~installing() override { subject.uninstall(); }

    bool files_written() const {
        return ::GetFileAttributesW((folder + L"0.tzo").c_str()) != INVALID_FILE_ATTRIBUTES &&
               ::GetFileAttributesW((folder + L"0.tzr").c_str()) != INVALID_FILE_ATTRIBUTES;
    }

    HANDLE start_up_thread() const { return threads.at(0).handle; }

    LONG crash() {
        const corvo::errorreport::crash what = stack.what();
        return subject.filter(what.exception);
    }

    // The calls that the platform got, in order: "wait NAME MILLISECONDS" and the like.
    std::vector<std::string> calls;
    std::vector<started_thread> threads;
    bool threads_start = true;
    std::map<HANDLE, DWORD> wait_results; // what is not here is signalled
    LPTOP_LEVEL_EXCEPTION_FILTER current_filter = former_filter;
    void* allocation_base = ::GetModuleHandleW(nullptr);
    SIZE_T description_size = sizeof(MEMORY_BASIC_INFORMATION);
    HANDLE event = nullptr;
    HANDLE overdue = nullptr;
    bool runs_at_wait = false;    // waiting for the reporting thread lets it run
    bool crashes_at_wait = false; // waiting for the start-up thread crashes
    std::wstring folder;
    test::fake_stack stack;

private:
    std::string name_of(HANDLE handle) const {
        if (handle == event) {
            return "started";
        }
        for (std::size_t i = 0; i < threads.size(); ++i) {
            if (threads[i].handle == handle) {
                return "thread " + std::to_string(i);
            }
        }
        return "";
    }

    // The test framework watches this thread, from its first failure or trace on, with a thread of its own, which must be there before
    // threads are only recorded: else a failure hangs.
    bool m_watched = [] {
        SCOPED_TRACE("first");
        return true;
    }();
    test::temporary_folder m_folder;
    support::script<decltype(::CreateEventW)> m_event{
        support::CreateEventW,
        [this](SECURITY_ATTRIBUTES* security, BOOL manual, BOOL initial, const wchar_t* name) {
            EXPECT_EQ(nullptr, security);
            EXPECT_EQ(nullptr, name);
            EXPECT_FALSE(initial);
            // The watchdog has two; the last that is made is that of the reporting thread.
            const HANDLE made = support::CreateEventW.real(security, manual, initial, name);
            if (manual) {
                overdue = overdue == nullptr ? made : overdue; // the first of them
            } else {
                event = made;
            }
            return made;
        }};
    support::script<decltype(::CreateThread)> m_create{
        support::CreateThread,
        [this](SECURITY_ATTRIBUTES* security, SIZE_T size, LPTHREAD_START_ROUTINE procedure, void* argument,
               DWORD flags, DWORD*) -> HANDLE {
            EXPECT_EQ(nullptr, security);
            if (flags == STACK_SIZE_PARAM_IS_A_RESERVATION) {
                calls.push_back("watch");
                return nullptr;
            }
            EXPECT_EQ(0U, size);
            EXPECT_EQ(nullptr, argument);
            EXPECT_EQ(0U, flags);
            calls.push_back("create");
            if (!threads_start) {
                return nullptr;
            }
            threads.push_back({procedure, support::CreateEventW.real(nullptr, FALSE, FALSE, nullptr)});
            return threads.back().handle;
        }};
    support::script<decltype(::WaitForSingleObject)> m_wait{
        support::WaitForSingleObject, [this](HANDLE handle, DWORD limit) -> DWORD {
            if (name_of(handle).empty()) {
                return support::WaitForSingleObject.real(handle, limit);
            }
            calls.push_back("wait " + name_of(handle) + " " + std::to_string(limit));
            if (std::exchange(crashes_at_wait, false)) {
                crash();
            }
            const auto found = wait_results.find(handle);
            return found == wait_results.end() ? WAIT_OBJECT_0 : found->second;
        }};
    support::script<decltype(::WaitForMultipleObjects)> m_wait_for_either{
        support::WaitForMultipleObjects,
        [this](DWORD count, const HANDLE* handles, BOOL all, DWORD limit) -> DWORD {
            EXPECT_EQ(2U, count);
            EXPECT_FALSE(all);
            EXPECT_EQ(overdue, handles[1]);
            calls.push_back("wait " + name_of(handles[0]) + " or overdue " + std::to_string(limit));
            if (runs_at_wait && threads.size() == 2) {
                threads[1].procedure(nullptr);
            }
            return WAIT_OBJECT_0;
        }};
    support::script<decltype(::TerminateThread)> m_terminate_thread{
        support::TerminateThread, [this](HANDLE handle, DWORD code) -> BOOL {
            calls.push_back("end " + name_of(handle) + " " + std::to_string(code));
            return TRUE;
        }};
    support::script<decltype(::TerminateProcess)> m_terminate_process{
        support::TerminateProcess, [this](HANDLE process, UINT code) -> BOOL {
            EXPECT_EQ(::GetCurrentProcess(), process);
            calls.push_back("end process " + std::to_string(code));
            return TRUE;
        }};
    support::script<decltype(::SetUnhandledExceptionFilter)> m_filter{
        support::SetUnhandledExceptionFilter, [this](LPTOP_LEVEL_EXCEPTION_FILTER filter) {
            calls.push_back("filter");
            return std::exchange(current_filter, filter);
        }};
    support::script<decltype(::VirtualQuery)> m_query{
        support::VirtualQuery, [this](const void* address, MEMORY_BASIC_INFORMATION* memory, SIZE_T size) {
            const SIZE_T known = support::VirtualQuery.real(address, memory, size);
            if (memory->AllocationBase != ::GetModuleHandleW(nullptr)) {
                return known;
            }
            memory->AllocationBase = allocation_base;
            return description_size;
        }};
    support::script<decltype(::GetModuleFileNameW)> m_name{
        support::GetModuleFileNameW, [](HMODULE module, wchar_t* path, DWORD size) {
            return support::GetModuleFileNameW.real(
                reinterpret_cast<DWORD64>(module) == 0x140000000 ? nullptr : module, path, size);
        }};
    support::script<decltype(::GetTempPathW)> m_temp{
        support::GetTempPathW, [this](DWORD, wchar_t* path) -> DWORD {
            std::memcpy(path, folder.c_str(), (folder.size() + 1) * sizeof(wchar_t));
            return static_cast<DWORD>(folder.size());
        }};

protected:
    component subject; // after the scripts, which its constructor meets
};

using strings = std::vector<std::string>;

TEST_F(installing, starts_the_start_up_thread_before_the_filter_is_set) {
    subject.install();
    EXPECT_EQ((strings{"watch", "create", "filter"}), calls);
    EXPECT_NE(current_filter, &former_filter);
}

TEST_F(installing, in_a_library_starts_only_the_thread) {
    allocation_base = reinterpret_cast<void*>(0x180000000);
    const auto terminate = std::get_terminate();
    subject.install();
    EXPECT_EQ((strings{"create"}), calls);
    EXPECT_EQ(terminate, std::get_terminate());
}

TEST_F(installing, without_a_whole_description_of_its_memory_starts_only_the_thread) {
    description_size = 15;
    subject.install();
    EXPECT_EQ((strings{"create"}), calls);
}

TEST_F(installing, takes_over_what_would_end_the_process_without_an_exception) {
    const auto terminate = std::get_terminate();
    const auto abort = std::signal(SIGABRT, SIG_DFL);
    std::signal(SIGABRT, abort);
    const auto invalid = ::_get_invalid_parameter_handler();
    subject.install();
    EXPECT_NE(terminate, std::get_terminate());
    EXPECT_NE(invalid, ::_get_invalid_parameter_handler());
    const auto taken = std::signal(SIGABRT, SIG_DFL);
    std::signal(SIGABRT, taken);
    EXPECT_NE(abort, taken);

    subject.uninstall();
    EXPECT_EQ(terminate, std::get_terminate());
    EXPECT_EQ(invalid, ::_get_invalid_parameter_handler());
    EXPECT_EQ(abort, std::signal(SIGABRT, abort));
}

TEST_F(installing, fails_where_the_programs_name_cannot_be_had) {
    const support::script name(support::GetModuleFileNameW, [](auto...) -> DWORD {
        ::SetLastError(ERROR_ACCESS_DENIED);
        return 0;
    });
    try {
        subject.install();
        FAIL();
    } catch (const pwrap::win_runtime_error& error) {
        EXPECT_STREQ("GetModuleFileNameW failed: Access denied.", error.what());
    }
    EXPECT_EQ(strings(), calls);
}

TEST_F(installing, again_does_not_take_its_own_handlers_for_the_former_ones) {
    const auto terminate = std::get_terminate();
    subject.install();
    subject.install();
    EXPECT_EQ((strings{"watch", "create", "filter", "create"}), calls);
    subject.uninstall();
    EXPECT_EQ(&former_filter, current_filter);
    EXPECT_EQ(terminate, std::get_terminate());
}

TEST_F(installing, removal_forgets_the_notes_and_closes_its_thread) {
    subject.install();
    subject.add_note(L"note");
    std::vector<HANDLE> closed;
    const HANDLE thread = start_up_thread();
    {
        const support::script close(support::CloseHandle, [&](HANDLE handle) {
            closed.push_back(handle);
            return support::CloseHandle.real(handle);
        });
        subject.uninstall();
    }
    EXPECT_THAT(closed, testing::ElementsAre(thread));
    subject.install();
    runs_at_wait = true;
    std::wstring asked;
    const support::script box(support::MessageBoxIndirectW, [&](const MSGBOXPARAMSW* parameters) {
        asked += parameters->lpszText;
        return IDNO;
    });
    const support::script connect(support::WinHttpOpen, [](auto...) -> HINTERNET { return nullptr; });
    threads.erase(threads.begin()); // so that the reporting thread is the second again
    crash();
    EXPECT_THAT(asked, testing::Not(testing::HasSubstr(L"note")));
    EXPECT_FALSE(asked.empty());
}

TEST_F(installing, again_closes_the_former_start_up_thread) {
    subject.install();
    std::vector<HANDLE> closed;
    const support::script close(support::CloseHandle, [&](HANDLE handle) {
        closed.push_back(handle);
        return support::CloseHandle.real(handle);
    });
    const HANDLE first = start_up_thread();
    subject.install();
    EXPECT_THAT(closed, testing::ElementsAre(first));
}

TEST_F(installing, removal_puts_the_former_filter_back_and_waits_a_little) {
    subject.install();
    calls.clear();
    subject.uninstall();
    EXPECT_EQ((strings{"filter", "wait thread 0 100"}), calls);
    EXPECT_EQ(&former_filter, current_filter);
}

TEST_F(installing, removal_ends_a_start_up_thread_that_does_not_end_by_itself) {
    subject.install();
    wait_results[start_up_thread()] = WAIT_TIMEOUT;
    calls.clear();
    subject.uninstall();
    EXPECT_EQ((strings{"filter", "wait thread 0 100", "end thread 0 1", "wait thread 0 2000"}), calls);
}

TEST_F(installing, removal_ends_a_start_up_thread_that_cannot_be_waited_for) {
    subject.install();
    wait_results[start_up_thread()] = WAIT_FAILED;
    calls.clear();
    subject.uninstall();
    EXPECT_EQ((strings{"filter", "wait thread 0 100", "end thread 0 1", "wait thread 0 2000"}), calls);
}

// The start-up thread is in the midst of something: it holds the guard that it gives back where it waits.
class busy_sender {
public:
    busy_sender() { m_busy.get_future().wait(); }
    ~busy_sender() {
        m_done.set_value();
        m_thread.join();
    }

private:
    std::promise<void> m_busy;
    std::promise<void> m_done;
    std::thread m_thread{[this] {
        const pwrap::endable_thread guarded;
        m_busy.set_value();
        m_done.get_future().wait();
    }};
};

TEST_F(installing, removal_waits_for_a_moment_at_which_the_start_up_thread_holds_nothing) {
    subject.install();
    wait_results[start_up_thread()] = WAIT_TIMEOUT;
    ULONGLONG ticks = 1000;
    const support::script time(support::GetTickCount64, [&] { return ticks += 500; });
    {
        std::optional<busy_sender> busy(std::in_place);
        const support::script sleep(support::Sleep, [&](DWORD limit) {
            EXPECT_EQ(1U, limit);
            busy.reset(); // it comes to a wait, or to its end
        });
        calls.clear();
        subject.uninstall();
        EXPECT_FALSE(busy.has_value());
    }
    EXPECT_EQ((strings{"filter", "wait thread 0 100", "end thread 0 1", "wait thread 0 2000"}), calls);
}

TEST_F(installing, removal_does_not_wait_for_ever_for_a_library_that_is_being_loaded) {
    subject.install();
    wait_results[start_up_thread()] = WAIT_TIMEOUT;
    const busy_sender busy;
    ULONGLONG ticks = 1000;
    const support::script time(support::GetTickCount64, [&] { return ticks += 500; });
    std::promise<void> locked;
    std::promise<void> removed;
    std::thread loading([&] {
        ULONG_PTR cookie = 0;
        ::LdrLockLoaderLock(0, nullptr, &cookie);
        locked.set_value();
        removed.get_future().wait();
        ::LdrUnlockLoaderLock(0, cookie);
    });
    locked.get_future().wait();
    calls.clear();
    subject.uninstall();
    removed.set_value();
    loading.join();
    EXPECT_EQ((strings{"filter", "wait thread 0 100", "end thread 0 1", "wait thread 0 2000"}), calls);
}

TEST_F(installing, removal_takes_an_abandoned_start_up_thread_for_ended) {
    subject.install();
    wait_results[start_up_thread()] = WAIT_ABANDONED;
    calls.clear();
    subject.uninstall();
    EXPECT_EQ((strings{"filter", "wait thread 0 100"}), calls);
}

TEST_F(installing, removal_happens_once) {
    subject.install();
    subject.uninstall();
    calls.clear();
    subject.uninstall();
    EXPECT_EQ(strings(), calls);
}

// There is nothing to put back then; without a start-up thread the filter that remains reports nothing.
TEST_F(installing, removal_leaves_the_filter_where_there_was_none_before) {
    current_filter = nullptr;
    subject.install();
    calls.clear();
    subject.uninstall();
    EXPECT_EQ((strings{"wait thread 0 100"}), calls);
    EXPECT_NE(nullptr, current_filter);
    calls.clear();
    crash();
    EXPECT_EQ((strings{"end process 4294967295"}), calls);
}

TEST_F(installing, main_waits_for_the_start_up_thread_without_a_limit) {
    subject.install();
    calls.clear();
    subject.wait_for_start_up_thread();
    EXPECT_EQ((strings{"wait thread 0 4294967295"}), calls);
}

TEST_F(installing, without_a_start_up_thread_main_does_not_wait) {
    threads_start = false;
    subject.install();
    calls.clear();
    subject.wait_for_start_up_thread();
    EXPECT_EQ(strings(), calls);
}

// What a handler raises, caught instead of the filter. C++ exceptions are raised by the same function and go through.
struct raised {
    DWORD code;
    DWORD flags;
    DWORD parameters;

    static raised by(const std::function<void()>& handler) {
        std::optional<raised> seen;
        const support::script raise(support::RaiseException,
                                    [&](DWORD code, DWORD flags, DWORD count, const ULONG_PTR* parameters) {
                                        if (code >> 16 != 0xE054) {
                                            support::RaiseException.real(code, flags, count, parameters);
                                            return;
                                        }
                                        seen = raised{code, flags, count};
                                        throw std::runtime_error("not to come back");
                                    });
        EXPECT_THROW(handler(), std::runtime_error);
        return seen.value_or(raised{});
    }
    bool operator==(const raised&) const = default;
};

TEST_F(installing, makes_exceptions_of_what_is_none) {
    subject.install();
    EXPECT_EQ((raised{0xE0544D01, EXCEPTION_NONCONTINUABLE, 0}), raised::by(std::get_terminate()));
    EXPECT_EQ((raised{0xE0544D03, EXCEPTION_NONCONTINUABLE, 0}),
              raised::by([] { ::_get_invalid_parameter_handler()(nullptr, nullptr, nullptr, 0, 0); }));
    const auto abort = std::signal(SIGABRT, SIG_DFL);
    EXPECT_EQ((raised{0xE0544D02, EXCEPTION_NONCONTINUABLE, 0}), raised::by([&] { abort(SIGABRT); }));
    EXPECT_EQ(abort, std::signal(SIGABRT, abort)) << "a second thread's abort would end the process at once";
}

using crashing = installing;

TEST_F(crashing, is_reported_by_a_thread_and_ends_the_process) {
    subject.install();
    calls.clear();
    EXPECT_EQ(EXCEPTION_EXECUTE_HANDLER, crash());
    EXPECT_EQ((strings{"wait thread 0 30000", "create", "wait started 10000",
                       "wait thread 1 or overdue 4294967295", "end process 4294967295"}),
              calls);
}

TEST_F(crashing, after_an_abandoned_start_up_thread_is_reported) {
    subject.install();
    wait_results[start_up_thread()] = WAIT_ABANDONED;
    calls.clear();
    crash();
    EXPECT_EQ(5U, calls.size());
}

TEST_F(crashing, while_the_start_up_thread_stays_busy_is_not_reported) {
    subject.install();
    for (const DWORD result : {DWORD{WAIT_TIMEOUT}, DWORD{WAIT_FAILED}}) {
        wait_results[start_up_thread()] = result;
        calls.clear();
        crash();
        EXPECT_EQ((strings{"wait thread 0 30000", "end process 4294967295"}), calls);
    }
    EXPECT_FALSE(files_written());
}

TEST_F(crashing, without_a_start_up_thread_is_not_reported) {
    threads_start = false;
    subject.install();
    threads_start = true;
    calls.clear();
    crash();
    EXPECT_EQ((strings{"end process 4294967295"}), calls);
    EXPECT_FALSE(files_written());
}

TEST_F(crashing, where_no_thread_can_start_leaves_files) {
    subject.install();
    threads_start = false;
    calls.clear();
    crash();
    EXPECT_EQ((strings{"wait thread 0 30000", "create", "end process 4294967295"}), calls);
    EXPECT_TRUE(files_written());
}

TEST_F(crashing, where_the_thread_does_not_begin_ends_it_and_leaves_files) {
    subject.install();
    for (const DWORD result : {DWORD{WAIT_TIMEOUT}, DWORD{WAIT_FAILED}}) {
        wait_results[event] = result;
        threads.resize(1);
        calls.clear();
        crash();
        EXPECT_EQ((strings{"wait thread 0 30000", "create", "wait started 10000", "end thread 1 1",
                           "end process 4294967295"}),
                  calls);
        EXPECT_TRUE(files_written());
        ::DeleteFileW((folder + L"0.tzo").c_str());
        ::DeleteFileW((folder + L"0.tzr").c_str());
    }
}

TEST_F(crashing, files_written_without_a_thread_have_no_notes) {
    subject.install();
    subject.add_note(L"note");
    threads_start = false;
    crash();
    const std::string content = test::get_file((folder + L"0.tzo").c_str());
    const auto report = support::inflated({content.begin(), content.end()});
    ASSERT_TRUE(report.has_value());
    EXPECT_THAT(std::string(report->begin(), report->end()), testing::Not(testing::HasSubstr("DOOP")));
}

TEST_F(crashing, files_that_cannot_be_written_end_the_process_all_the_same) {
    subject.install();
    threads_start = false;
    const support::script temp(support::GetTempPathW, [](auto...) -> DWORD { return 0; });
    calls.clear();
    crash();
    EXPECT_EQ("end process 4294967295", calls.back());
}

TEST_F(crashing, whose_thread_does_not_come_to_its_end_leaves_files) {
    subject.install();
    crash(); // the thread never ran
    EXPECT_TRUE(files_written());
}

TEST_F(crashing, whose_thread_comes_to_its_end_leaves_no_more_files_than_that_does) {
    subject.install();
    const support::script screen_reader(support::SystemParametersInfoW,
                                        [](UINT, UINT, void* runs, UINT) -> BOOL {
                                            *static_cast<BOOL*>(runs) = TRUE;
                                            return TRUE;
                                        });
    // Nothing can be sent, so the thread saves the report: as the first pair, and the only one.
    const support::script connect(support::WinHttpOpen, [](auto...) -> HINTERNET { return nullptr; });
    runs_at_wait = true;
    crash();
    EXPECT_TRUE(files_written());
    EXPECT_EQ(INVALID_FILE_ATTRIBUTES, ::GetFileAttributesW((folder + L"1.tzo").c_str()));
    ::DeleteFileW((folder + L"1.tzo").c_str());
    ::DeleteFileW((folder + L"1.tzr").c_str());
}

TEST_F(crashing, takes_the_processs_own_lock_of_the_symbol_engine) {
    subject.install();
    crash();
    const support::script screen_reader(support::SystemParametersInfoW,
                                        [](UINT, UINT, void* runs, UINT) -> BOOL {
                                            *static_cast<BOOL*>(runs) = TRUE;
                                            return TRUE;
                                        });
    std::vector<std::wstring> names;
    const support::script mutex(support::CreateMutexW,
                                [&](SECURITY_ATTRIBUTES*, BOOL, const wchar_t* name) -> HANDLE {
                                    names.emplace_back(name);
                                    return nullptr;
                                });
    threads.at(1).procedure(nullptr);
    EXPECT_THAT(names,
                testing::ElementsAre(L"QeltSymInitialize-" + std::to_wstring(::GetCurrentProcessId())));
}

TEST_F(crashing, whose_thread_hangs_leaves_files_without_it) {
    subject.install();
    subject.add_note(L"note");
    const support::script either(support::WaitForMultipleObjects, [](auto...) -> DWORD {
        return WAIT_OBJECT_0 + 1; // overdue
    });
    calls.clear();
    crash();
    EXPECT_TRUE(files_written());
    EXPECT_EQ((strings{"wait thread 0 30000", "create", "wait started 10000", "end process 4294967295"}),
              calls)
        << "it may hold a lock, and is not ended by force";
}

// Somebody who waits for what does not come any more has the lock.
TEST_F(crashing, waits_half_a_minute_for_the_lock) {
    subject.install();
    std::promise<void> held;
    std::promise<void> ended;
    const HANDLE thread = start_up_thread();
    const support::script wait(support::WaitForSingleObject, [&](HANDLE handle, DWORD limit) -> DWORD {
        if (handle != thread) {
            return support::WaitForSingleObject.real(handle, limit);
        }
        calls.push_back("wait " + std::to_string(limit));
        if (limit == INFINITE) {
            held.set_value();
            ended.get_future().wait();
        }
        return WAIT_TIMEOUT;
    });
    std::thread waiting([&] { subject.wait_for_start_up_thread(); });
    held.get_future().wait();
    ULONGLONG ticks = 1000;
    const support::script time(support::GetTickCount64, [&] { return ticks += 500; });
    calls.clear();
    crash();
    EXPECT_EQ((strings{"wait 0", "end process 4294967295"}), calls);
    EXPECT_GE(ticks, 31000U);
    EXPECT_LE(ticks, 33000U);
    ended.set_value();
    waiting.join();
    EXPECT_FALSE(files_written());
}

// The lock is in the hands of a thread that needs what the crashing one holds; nothing is sent any more.
TEST_F(crashing, without_the_lock_is_reported_without_notes_when_the_start_up_thread_has_ended) {
    subject.install();
    subject.add_note(L"note");
    std::promise<void> held;
    std::promise<void> ended;
    const HANDLE thread = start_up_thread();
    bool first = true;
    const support::script wait(support::WaitForSingleObject, [&](HANDLE handle, DWORD limit) -> DWORD {
        if (handle == thread && limit == INFINITE && std::exchange(first, false)) {
            held.set_value();
            ended.get_future().wait();
        }
        return handle == thread || handle == event ? WAIT_OBJECT_0
                                                   : support::WaitForSingleObject.real(handle, limit);
    });
    std::thread waiting([&] { subject.wait_for_start_up_thread(); });
    held.get_future().wait();
    ULONGLONG ticks = 1000;
    const support::script time(support::GetTickCount64, [&] { return ticks += 500; });
    crash();
    ended.set_value();
    waiting.join();
    ASSERT_TRUE(files_written());
    const std::string content = test::get_file((folder + L"0.tzo").c_str());
    const auto report = support::inflated({content.begin(), content.end()});
    ASSERT_TRUE(report.has_value());
    EXPECT_THAT(std::string(report->begin(), report->end()), testing::Not(testing::HasSubstr("DOOP")));
}

// A crash under the heap's lock is one that the component must be able to report: nobody who notes something holds its lock while he
// waits for memory.
TEST_F(crashing, is_not_kept_waiting_by_a_note_that_waits_for_memory) {
    threads_start = false;
    subject.install();
    std::promise<void> noting;
    std::promise<void> trying;
    std::promise<void> may_try;
    std::promise<bool> tried;
    std::thread noter([&, note = std::wstring(1000, L'n')]() mutable {
        noting.set_value();
        subject.add_note(std::move(note));
    });
    std::thread crasher([&] {
        trying.set_value(); // a thread that starts needs memory, too
        may_try.get_future().wait();
        subject.wait_for_start_up_thread(); // takes the lock
        tried.set_value(true);
    });
    trying.get_future().wait();
    noting.get_future().wait();
    std::future<bool> result = tried.get_future();
    ::HeapLock(::GetProcessHeap());
    ::Sleep(50); // the noter waits for memory, or is done
    may_try.set_value();
    const bool had = result.wait_for(std::chrono::seconds(10)) == std::future_status::ready;
    ::HeapUnlock(::GetProcessHeap());
    noter.join();
    crasher.join();
    EXPECT_TRUE(had);
}

TEST_F(crashing, beside_another_waits_for_its_end) {
    subject.install();
    std::promise<void> second_waits;
    std::promise<void> first_ended;
    const support::script sleep(support::Sleep, [&](DWORD limit) {
        EXPECT_EQ(INFINITE, limit);
        second_waits.set_value();
        first_ended.get_future().wait();
    });
    std::thread second;
    const support::script either(support::WaitForMultipleObjects, [&](auto...) -> DWORD {
        second = std::thread([&] {
            const corvo::errorreport::crash what = stack.what();
            subject.filter(what.exception);
        });
        second_waits.get_future().wait(); // while the first is being reported
        return WAIT_OBJECT_0;
    });
    calls.clear();
    crash();
    EXPECT_EQ(1, std::count(calls.begin(), calls.end(), "create"));
    wait_results[start_up_thread()] = WAIT_TIMEOUT; // so that it comes to its end here
    first_ended.set_value();
    second.join();
}

// Main holds the lock while it waits for the sending, so that nobody else gets at the component meanwhile. A crash of the thread that
// holds it would wait for itself.
TEST_F(crashing, with_the_lock_held_ends_the_process_at_once) {
    subject.install();
    calls.clear();
    crashes_at_wait = true;
    subject.wait_for_start_up_thread();
    EXPECT_EQ((strings{"wait thread 0 4294967295", "end process 4294967295"}), calls);
    calls.clear();
    crash(); // and has given it back afterwards
    EXPECT_EQ("wait thread 0 30000", calls.front());
}

// What a thread of ours does wrong must not come to the filter, which waits for that thread.
TEST_F(crashing, in_the_threads_themselves_ends_there) {
    subject.install();
    crash();
    ASSERT_EQ(2U, threads.size());
    for (const started_thread& thread : threads) {
        const support::script mutex(support::CreateMutexW,
                                    [](auto...) -> HANDLE { throw std::runtime_error("thrown"); });
        const support::script event_fails(support::SetEvent,
                                          [](auto...) -> BOOL { throw std::runtime_error("thrown"); });
        EXPECT_EQ(0U, thread.procedure(nullptr));
    }
    for (const started_thread& thread : threads) {
        const support::script mutex(support::CreateMutexW, [](auto...) -> HANDLE {
            ::RaiseException(EXCEPTION_ACCESS_VIOLATION, EXCEPTION_NONCONTINUABLE, 0, nullptr);
            return nullptr;
        });
        const support::script event_fails(support::SetEvent, [](auto...) -> BOOL {
            ::RaiseException(EXCEPTION_ACCESS_VIOLATION, EXCEPTION_NONCONTINUABLE, 0, nullptr);
            return FALSE;
        });
        EXPECT_EQ(0U, thread.procedure(nullptr));
    }
}

TEST(note_text, ends_at_the_first_zero_or_at_its_limit) {
    EXPECT_EQ(L"abc", note_text("abc", 100, 65001));
    EXPECT_EQ(L"ab", note_text("abc", 2, 65001));
    EXPECT_EQ(L"", note_text("abc", 0, 65001));
    EXPECT_EQ(L"", note_text("", 100, 65001));
}

TEST(note_text, is_converted_from_its_code_page) {
    EXPECT_EQ(L"\x10D", note_text("\xE8", 100, 1250));
    EXPECT_EQ(L"\x10D", note_text("\xC4\x8D", 100, 65001));
}

TEST(note_text, asks_for_composed_characters_below_code_page_65000_only) {
    std::vector<std::pair<UINT, DWORD>> asked;
    const support::script convert(support::MultiByteToWideChar, [&](UINT page, DWORD flags, auto...) {
        asked.emplace_back(page, flags);
        return 1;
    });
    for (const UINT page : {1250U, 64999U, 65000U, 65001U}) {
        note_text("a", 1, page);
    }
    EXPECT_THAT(asked, testing::IsSupersetOf({std::pair(1250U, DWORD{1}), std::pair(64999U, DWORD{1}),
                                              std::pair(65000U, DWORD{0}), std::pair(65001U, DWORD{0})}));
    EXPECT_THAT(asked, testing::Not(testing::Contains(std::pair(64999U, DWORD{0}))));
    EXPECT_THAT(asked, testing::Not(testing::Contains(std::pair(65000U, DWORD{1}))));
}

TEST(note_text, ends_at_a_zero_that_only_its_code_page_spells) {
    EXPECT_EQ(L"a", note_text("a+AAAAYg-", 100, 65000)); // a, zero, b in UTF-7
}

TEST(note_text, that_cannot_be_converted_fails) {
    const support::script convert(support::MultiByteToWideChar, [](auto...) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    });
    try {
        note_text("a", 1, 1250);
        FAIL();
    } catch (const std::system_error& error) {
        EXPECT_THAT(error.what(), testing::StartsWith("MultiByteToWideChar failed: "));
        EXPECT_EQ(87, error.code().value());
    }
}

} // namespace
