// What the tests of requests expect of exceptions.
#pragma once

#include "platform/errors.h"

#include <gtest/gtest.h>

#include <string>
#include <system_error>
#include <typeinfo>

namespace test {

// The text of the number is the business of the error types; the literal before it is looked at here.
inline void expect_is_http_error(const pwrap::http_error& error, DWORD number, const std::string& literal) {
    EXPECT_EQ(number, error.number());
    EXPECT_EQ(literal + ": " + pwrap::http_error_message(number, 0), error.what());
}

template <class F> void expect_http_error(DWORD number, const std::string& literal, F action) {
    try {
        action();
        ADD_FAILURE() << "nothing was thrown, expected: " << literal;
    } catch (const pwrap::http_error& error) {
        expect_is_http_error(error, number, literal);
    } catch (const std::exception& error) {
        ADD_FAILURE() << "another exception: " << error.what();
    }
}

} // namespace test
