// What the stream tests expect of exceptions: the very type and the text.
//
// Each function runs the action and reports a failed expectation to GoogleTest; none throws.
#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <system_error>
#include <typeinfo>

namespace test {

template <class E, class F> void expect_throw(std::string_view text, F action) {
    try {
        action();
        ADD_FAILURE() << "nothing was thrown, expected: " << text;
    } catch (const E& error) {
        EXPECT_EQ(text, error.what());
        EXPECT_TRUE(typeid(E) == typeid(error)) << "thrown: " << typeid(error).name();
    } catch (const std::exception& error) {
        ADD_FAILURE() << "another exception: " << error.what();
    }
}

// The text of a system error is the literal, ": " and the system's text for the number.
template <class F> void expect_system_error(int number, const std::string& literal, F action) {
    try {
        action();
        ADD_FAILURE() << "nothing was thrown, expected: " << literal;
    } catch (const std::system_error& error) {
        EXPECT_EQ(number, error.code().value());
        EXPECT_TRUE(error.code().category() == std::system_category());
        EXPECT_EQ(literal + ": " + std::system_category().message(number), error.what());
    } catch (const std::exception& error) {
        ADD_FAILURE() << "another exception: " << error.what();
    }
}

} // namespace test
