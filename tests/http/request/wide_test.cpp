#include "http/request/wide.h"

#include "tests/stream/expect.h"
#include "tests/support/substitutes.h"

#include <gtest/gtest.h>

#include <string>

using webio::to_wide;

TEST(wide, text_is_converted_from_utf_8) {
    EXPECT_EQ(L"/\x010D\xD83D\xDE00.msi", to_wide("/\xC4\x8D\xF0\x9F\x98\x80.msi"));
    EXPECT_EQ(std::wstring(5000, L'x'), to_wide(std::string(5000, 'x')));
}

TEST(wide, empty_text_is_no_failure) {
    EXPECT_EQ(L"", to_wide(""));
}

TEST(wide, text_that_cannot_be_converted_is_a_system_error) {
    const support::script convert(support::MultiByteToWideChar,
                                  [](UINT, DWORD, const char*, int, wchar_t*, int) -> int {
                                      ::SetLastError(1113);
                                      return 0;
                                  });
    test::expect_system_error(1113, "MultiByteToWideChar failed", [] { to_wide("text"); });
}
