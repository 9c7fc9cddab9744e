#include "platform/mutex_locker.h"

#include "platform/handle.h"
#include "tests/stream/expect.h"
#include "tests/support/substitutes.h"

#include <gtest/gtest.h>

#include <thread>
#include <type_traits>

using test::expect_throw;

namespace {

// Whether another thread could have the mutex now.
bool is_free(HANDLE mutex) {
    bool acquired = false;
    std::thread([&] {
        acquired = ::WaitForSingleObject(mutex, 0) == WAIT_OBJECT_0;
        if (acquired) {
            ::ReleaseMutex(mutex);
        }
    }).join();
    return acquired;
}

} // namespace

TEST(mutex_locker, cannot_be_copied) {
    static_assert(!std::is_copy_constructible_v<pwrap::mutex_locker>);
    static_assert(!std::is_copy_assignable_v<pwrap::mutex_locker>);
    static_assert(std::has_virtual_destructor_v<pwrap::mutex_locker>);
}

TEST(mutex_locker, holds_the_lock_for_its_life) {
    const pwrap::win_handle<0> mutex(::CreateMutexW(nullptr, FALSE, nullptr));
    {
        const pwrap::mutex_locker lock(mutex.get(), INFINITE);
        EXPECT_FALSE(is_free(mutex.get()));
    }
    EXPECT_TRUE(is_free(mutex.get()));
}

TEST(mutex_locker, gives_the_lock_back_when_an_exception_leaves) {
    const pwrap::win_handle<0> mutex(::CreateMutexW(nullptr, FALSE, nullptr));
    try {
        const pwrap::mutex_locker lock(mutex.get(), 0);
        throw 1;
    } catch (int) {
    }
    EXPECT_TRUE(is_free(mutex.get()));
}

TEST(mutex_locker, does_not_own_the_handle) {
    const pwrap::win_handle<0> mutex(::CreateMutexW(nullptr, FALSE, nullptr));
    {
        const pwrap::mutex_locker lock(mutex.get(), 0);
    }
    const pwrap::mutex_locker again(mutex.get(), 0);
}

TEST(mutex_locker, acquires_a_mutex_whose_owner_died_without_releasing_it) {
    const pwrap::win_handle<0> mutex(::CreateMutexW(nullptr, FALSE, nullptr));
    std::thread([&] { EXPECT_EQ(DWORD{WAIT_OBJECT_0}, ::WaitForSingleObject(mutex.get(), 0)); }).join();
    DWORD result = 0;
    {
        const support::script wait(support::WaitForSingleObject, [&](HANDLE handle, DWORD timeout) {
            result = support::WaitForSingleObject.real(handle, timeout);
            return result;
        });
        const pwrap::mutex_locker lock(mutex.get(), 0);
        EXPECT_EQ(0x80U, result); // WAIT_ABANDONED
        EXPECT_FALSE(is_free(mutex.get()));
    }
    EXPECT_TRUE(is_free(mutex.get()));
}

TEST(mutex_locker, throws_the_callers_text_when_the_time_is_up) {
    const pwrap::win_handle<0> mutex(::CreateMutexW(nullptr, FALSE, nullptr));
    const pwrap::mutex_locker lock(mutex.get(), 0);
    std::thread([&] {
        expect_throw<std::runtime_error>("timeout", [&] { const pwrap::mutex_locker other(mutex.get(), 0); });
        expect_throw<std::runtime_error>(
            "too late", [&] { const pwrap::mutex_locker other(mutex.get(), 0, "too late"); });
    }).join();
    EXPECT_FALSE(is_free(mutex.get())) << "the lock was given back by one that never had it";
}

TEST(mutex_locker, waits_for_the_given_mutex_and_time) {
    HANDLE waited = nullptr;
    DWORD time = 0;
    HANDLE released = nullptr;
    const auto mutex = reinterpret_cast<HANDLE>(0x1234);
    {
        const support::script wait(support::WaitForSingleObject, [&](HANDLE handle, DWORD timeout) -> DWORD {
            waited = handle;
            time = timeout;
            return 0;
        });
        const support::script release(support::ReleaseMutex, [&](HANDLE handle) -> BOOL {
            released = handle;
            return TRUE;
        });
        const pwrap::mutex_locker lock(mutex, 5000);
    }
    EXPECT_EQ(mutex, waited);
    EXPECT_EQ(5000U, time);
    EXPECT_EQ(mutex, released);
}

TEST(mutex_locker, throws_where_the_wait_fails_and_releases_nothing) {
    DWORD number = 0;
    int releases = 0;
    std::string text;
    {
        const support::script wait(support::WaitForSingleObject, [](HANDLE, DWORD) -> DWORD {
            ::SetLastError(6);
            return 0xFFFFFFFF; // WAIT_FAILED
        });
        const support::script release(support::ReleaseMutex, [&](HANDLE) -> BOOL {
            ++releases;
            return TRUE;
        });
        try {
            const pwrap::mutex_locker lock(reinterpret_cast<HANDLE>(0x1234), 0);
        } catch (const pwrap::win_runtime_error& error) {
            number = error.number();
            text = error.what();
        }
    }
    EXPECT_EQ(6U, number);
    EXPECT_EQ("WaitForSingleObject failed: " + pwrap::win_error_message(6, 0), text);
    EXPECT_EQ(0, releases);
}
