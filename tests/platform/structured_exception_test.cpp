#include "platform/structured_exception.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

namespace {

// What comes out of guarded work that raises this code.
std::string outcome(DWORD code) {
    try {
        pwrap::run_guarded(
            [](void* raised) { ::RaiseException(*static_cast<DWORD*>(raised), 0, 0, nullptr); }, &code);
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "none";
}

TEST(run_guarded, makes_an_exception_of_a_fault) {
    EXPECT_EQ("structured exception 0xC0000005", outcome(EXCEPTION_ACCESS_VIOLATION));
    EXPECT_EQ("structured exception 0xC0000094", outcome(EXCEPTION_INT_DIVIDE_BY_ZERO));
    EXPECT_EQ("structured exception 0x0000000A", outcome(10));
}

TEST(run_guarded, makes_an_exception_of_a_real_fault) {
    try {
        pwrap::run_guarded([](void* nowhere) { *static_cast<volatile int*>(nowhere) = 1; }, nullptr);
        FAIL();
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ("structured exception 0xC0000005", error.what());
    }
}

TEST(run_guarded, lets_cpp_exceptions_pass) {
    try {
        pwrap::run_guarded([](void*) { throw std::invalid_argument("thrown"); }, nullptr);
        FAIL();
    } catch (const std::invalid_argument& error) {
        EXPECT_STREQ("thrown", error.what());
    }
}

TEST(run_guarded, runs_the_destructors_that_a_cpp_exception_passes) {
    struct count {
        int& value;
        ~count() { ++value; }
    };
    int destroyed = 0;
    EXPECT_THROW(pwrap::run_guarded(
                     [](void* argument) {
                         const count on_the_way{*static_cast<int*>(argument)};
                         throw std::invalid_argument("thrown");
                     },
                     &destroyed),
                 std::invalid_argument);
    EXPECT_EQ(1, destroyed);
}

TEST(run_guarded, returns_when_the_work_does) {
    int value = 0;
    pwrap::run_guarded([](void* argument) { *static_cast<int*>(argument) = 7; }, &value);
    EXPECT_EQ(7, value);
}

} // namespace
