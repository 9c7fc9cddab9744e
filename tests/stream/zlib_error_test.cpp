#include "stream/zlib_error.h"

#include "tests/stream/expect.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <new>
#include <stdexcept>

// EACCES is 13 in both C libraries; the system category's number 13 is another error on Windows, and that is meant.
TEST(zlib_error, minus_1_is_errno_paired_with_the_system_category) {
    test::expect_system_error(13, "zlib failed with errno", [] {
        errno = 13;
        corvo::throw_zlib_error(-1);
    });
}

TEST(zlib_error, minus_4_is_bad_alloc) {
    EXPECT_THROW(corvo::throw_zlib_error(-4), std::bad_alloc);
}

TEST(zlib_error, has_a_text_for_every_other_number) {
    const auto expect = [](const char* text, int result) {
        test::expect_throw<std::runtime_error>(text, [&] { corvo::throw_zlib_error(result); });
    };
    expect("zlib stream error", -2);
    expect("zlib data error", -3);
    expect("zlib buffer error", -5);
    expect("zlib version error", -6);
    expect("zlib unknown error", -7);
    expect("zlib unknown error", -2147483647 - 1);
}
