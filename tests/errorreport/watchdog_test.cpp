// With the real thread, and waits that end as a test says; the process does not end.
#include "errorreport/watchdog.h"

#include "tests/support/substitutes.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <string>
#include <vector>

using corvo::errorreport::watchdog;

namespace {

using strings = std::vector<std::string>;

// The watchdog's own thread runs in the test's, whose waits the test scripts.
class watching : public testing::Test {
protected:
    watching() { subject.start(); }

    // Runs the thread to its end: what it waits for comes as `signs` say, and then no more.
    DWORD run(std::vector<DWORD> limits) {
        m_limits = std::move(limits);
        return m_procedure(m_argument);
    }

    strings calls;
    DWORD last_result = WAIT_TIMEOUT;

private:
    std::vector<DWORD> m_limits; // what is set meanwhile, one a wait
    std::size_t m_next = 0;
    LPTHREAD_START_ROUTINE m_procedure = nullptr;
    void* m_argument = nullptr;
    support::script<decltype(::CreateThread)> m_create{
        support::CreateThread,
        [this](SECURITY_ATTRIBUTES*, SIZE_T, LPTHREAD_START_ROUTINE procedure, void* argument, DWORD,
               DWORD*) -> HANDLE {
            calls.emplace_back("create");
            m_procedure = procedure;
            m_argument = argument;
            return support::CreateEventW.real(nullptr, FALSE, FALSE, nullptr);
        }};
    support::script<decltype(::WaitForMultipleObjects)> m_wait{
        support::WaitForMultipleObjects,
        [this](DWORD count, const HANDLE* handles, BOOL all, DWORD limit) -> DWORD {
            EXPECT_EQ(2U, count);
            EXPECT_FALSE(all);
            EXPECT_EQ(::GetCurrentThreadId(), ::GetThreadId(handles[1])) << "the thread that has started it";
            calls.push_back("wait " + std::to_string(limit));
            if (m_next == m_limits.size()) {
                return last_result;
            }
            subject.sign(m_limits[m_next++]);
            return WAIT_OBJECT_0;
        }};
    support::script<decltype(::WaitForSingleObject)> m_last_wait{
        support::WaitForSingleObject, [this](HANDLE handle, DWORD limit) -> DWORD {
            if (handle != ::GetCurrentProcess()) {
                return WAIT_OBJECT_0; // it has begun
            }
            calls.push_back("last wait " + std::to_string(limit));
            return WAIT_TIMEOUT;
        }};
    support::script<decltype(::TerminateProcess)> m_end{
        support::TerminateProcess, [this](HANDLE process, UINT code) -> BOOL {
            EXPECT_EQ(::GetCurrentProcess(), process);
            EXPECT_TRUE(is_overdue());
            calls.push_back("end process " + std::to_string(code));
            return TRUE;
        }};

protected:
    bool is_overdue() const {
        return support::WaitForSingleObject.real(subject.overdue(), 0) == WAIT_OBJECT_0;
    }

    watchdog subject; // after the scripts
};

TEST_F(watching, waits_without_a_limit_until_there_is_a_crash) {
    last_result = WAIT_FAILED;
    run({});
    EXPECT_EQ((strings{"create", "wait 4294967295"}), calls);
    EXPECT_FALSE(is_overdue()) << "what cannot be waited for is not late";
}

TEST_F(watching, ends_the_process_when_a_sign_is_overdue_and_leaves_time_to_save) {
    run({watchdog::report_limit, watchdog::report_limit});
    EXPECT_EQ((strings{"create", "wait 4294967295", "wait 300000", "wait 300000", "last wait 15000",
                       "end process 4294967295"}),
              calls);
}

TEST_F(watching, waits_for_what_a_person_reads) {
    run({watchdog::report_limit, INFINITE, watchdog::report_limit});
    EXPECT_EQ((strings{"create", "wait 4294967295", "wait 300000", "wait 4294967295", "wait 300000",
                       "last wait 15000", "end process 4294967295"}),
              calls);
}

TEST_F(watching, takes_the_nearer_of_the_limits_of_crash_and_removal) {
    subject.sign_of_removal(10000);
    run({watchdog::report_limit});
    EXPECT_EQ((strings{"create", "wait 10000", "wait 10000", "last wait 15000", "end process 4294967295"}),
              calls);
}

// There is nobody who could save anything.
TEST_F(watching, ends_the_process_at_once_when_the_removal_is_late_and_there_is_no_crash) {
    subject.sign_of_removal(10000);
    run({});
    EXPECT_EQ((strings{"create", "wait 10000", "end process 4294967295"}), calls);
}

TEST_F(watching, does_not_watch_a_removal_that_has_come_to_its_end) {
    subject.sign_of_removal(10000);
    subject.sign_of_removal(INFINITE);
    last_result = WAIT_FAILED;
    run({});
    EXPECT_EQ((strings{"create", "wait 4294967295"}), calls);
}

// The last thread of a process ends it.
TEST_F(watching, ends_with_the_thread_that_has_started_it_and_leaves_the_process_alone) {
    last_result = WAIT_OBJECT_0 + 1;
    EXPECT_EQ(0xFFFFFFFFU, run({}));
    EXPECT_EQ((strings{"create", "wait 4294967295"}), calls);
}

TEST_F(watching, starts_its_thread_once) {
    subject.start();
    EXPECT_EQ((strings{"create"}), calls);
}

TEST(watchdog, gets_its_signs_and_ends_the_process_on_a_thread_of_its_own) {
    auto& subject = *new watchdog; // lives as long as the process
    std::promise<UINT> ended;
    const support::script end(support::TerminateProcess, [&](HANDLE, UINT code) -> BOOL {
        ended.set_value(code);
        return TRUE;
    });
    subject.start();
    subject.sign(INFINITE);
    subject.sign_of_removal(INFINITE);
    EXPECT_EQ(WAIT_TIMEOUT, ::WaitForSingleObject(subject.overdue(), 50));
    subject.sign_of_removal(1);
    EXPECT_EQ(0xFFFFFFFFU, ended.get_future().get());
    EXPECT_EQ(WAIT_OBJECT_0, ::WaitForSingleObject(subject.overdue(), 0));
}

TEST(watchdog, without_its_events_watches_nothing) {
    const support::script event(support::CreateEventW, [](auto...) -> HANDLE { return nullptr; });
    bool created = false;
    const support::script thread(support::CreateThread, [&](auto...) -> HANDLE {
        created = true;
        return nullptr;
    });
    watchdog subject;
    subject.start();
    subject.sign();
    EXPECT_FALSE(created);
    EXPECT_EQ(nullptr, subject.overdue());
}

} // namespace
