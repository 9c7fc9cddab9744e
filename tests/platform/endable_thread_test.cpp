#include "platform/endable_thread.h"

#include "tests/support/substitutes.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <future>
#include <thread>

using pwrap::endable_thread;
using pwrap::endable_thread_hold;
using pwrap::wait_endable;

namespace {

// A thread of the system, which can be ended.
class worker {
public:
    explicit worker(std::function<void()> work) : m_work(std::move(work)) {
        m_thread = support::CreateThread.real(nullptr, 0, run, this, 0, &m_id);
    }
    worker(const worker&) = delete;
    worker& operator=(const worker&) = delete;
    ~worker() {
        ::WaitForSingleObject(m_thread, INFINITE);
        ::CloseHandle(m_thread);
    }

    void end() { ::TerminateThread(m_thread, 1); }
    DWORD id() const { return m_id; }

private:
    static DWORD WINAPI run(void* self) {
        static_cast<worker*>(self)->m_work();
        return 0;
    }

    std::function<void()> m_work;
    DWORD m_id = 0;
    HANDLE m_thread;
};

class endable : public testing::Test {
protected:
    HANDLE event = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
    std::promise<void> begun;
    ~endable() override { ::CloseHandle(event); }
};

TEST_F(endable, thread_cannot_be_held_while_it_works) {
    std::promise<void> done;
    const worker thread([&] {
        const endable_thread guarded;
        begun.set_value();
        done.get_future().wait();
    });
    begun.get_future().wait();
    EXPECT_FALSE(endable_thread_hold(0));
    EXPECT_FALSE(endable_thread_hold(10));
    done.set_value();
    EXPECT_TRUE(endable_thread_hold(10000)) << "it has ended, or does in a moment";
}

TEST_F(endable, thread_is_held_where_it_waits_and_does_not_go_on) {
    std::atomic<bool> went_on = false;
    const worker thread([&] {
        const endable_thread guarded;
        begun.set_value();
        EXPECT_EQ(WAIT_OBJECT_0, wait_endable(event));
        went_on = true;
    });
    begun.get_future().wait();
    {
        const endable_thread_hold hold(10000);
        ASSERT_TRUE(hold);
        ::SetEvent(event);
        ::Sleep(20);
        EXPECT_FALSE(went_on);
    }
    EXPECT_TRUE(endable_thread_hold(10000));
}

TEST_F(endable, thread_that_was_ended_where_it_waits_leaves_nothing_held) {
    {
        worker thread([&] {
            const endable_thread guarded;
            begun.set_value();
            wait_endable(event);
        });
        begun.get_future().wait();
        const endable_thread_hold hold(10000);
        ASSERT_TRUE(hold);
        thread.end();
    }
    EXPECT_TRUE(endable_thread_hold(0));
}

TEST_F(endable, thread_that_was_ended_elsewhere_is_forgotten) {
    DWORD id = 0;
    {
        worker thread([&] {
            const endable_thread guarded;
            begun.set_value();
            ::WaitForSingleObject(event, INFINITE);
        });
        begun.get_future().wait();
        id = thread.id();
        thread.end();
    }
    endable_thread::forget(id + 4);
    endable_thread::forget(0);
    EXPECT_FALSE(endable_thread_hold(0)) << "another thread was ended";
    endable_thread::forget(id);
    EXPECT_TRUE(endable_thread_hold(0));
}

TEST_F(endable, waits_of_other_threads_are_ordinary_ones) {
    const endable_thread_hold hold(0);
    ASSERT_TRUE(hold);
    ::SetEvent(event);
    EXPECT_EQ(WAIT_OBJECT_0, wait_endable(event)) << "it does not wait for the guard";
}

TEST_F(endable, wait_keeps_the_systems_answer_and_error) {
    const endable_thread guarded;
    const support::script wait(support::WaitForSingleObject, [](HANDLE, DWORD limit) -> DWORD {
        EXPECT_EQ(INFINITE, limit);
        ::SetLastError(6);
        return WAIT_FAILED;
    });
    EXPECT_EQ(WAIT_FAILED, wait_endable(nullptr));
    EXPECT_EQ(6U, ::GetLastError());
}

} // namespace
