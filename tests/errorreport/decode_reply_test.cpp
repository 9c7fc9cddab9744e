// The platform's code pages are asked for real here.
#include "errorreport/reply_text.h"
#include "tests/support/substitutes.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

namespace {

using namespace std::string_view_literals;
using corvo::errorreport::reply_decoding;

// The body stands in a block of its very size.
std::wstring decoded(reply_decoding how, std::string_view body) {
    const auto copy = std::make_unique<unsigned char[]>(body.size());
    std::memcpy(copy.get(), body.data(), body.size());
    return corvo::errorreport::decode_reply(how, copy.get(), body.size());
}

constexpr reply_decoding every_way[] = {reply_decoding::windows_1250, reply_decoding::utf_7,
                                        reply_decoding::utf_16, reply_decoding::none, reply_decoding::utf_8};

} // namespace

TEST(decoding, of_windows_1250_has_the_slovenian_letters) {
    EXPECT_EQ(L"\x010D", decoded(reply_decoding::windows_1250, "\xE8"));
    EXPECT_EQ(L"\x010C\x0160\x017D\x010D\x0161\x017E a",
              decoded(reply_decoding::windows_1250, "\xC8\x8A\x8E\xE8\x9A\x9E a"));
}

TEST(decoding, of_utf_8_has_letters_of_every_length) {
    EXPECT_EQ(L"a\x010D\x20AC\xD83D\xDE00",
              decoded(reply_decoding::utf_8, "a\xC4\x8D\xE2\x82\xAC\xF0\x9F\x98\x80"));
}

TEST(decoding, of_utf_7_takes_base64_runs) {
    EXPECT_EQ(L"a\x010D"
              L"b",
              decoded(reply_decoding::utf_7, "a+AQ0-b"));
}

TEST(decoding, of_utf_16_takes_the_units_as_they_stand) {
    EXPECT_EQ(L"a\x010D", decoded(reply_decoding::utf_16, "a\0\x0D\x01"sv));
    EXPECT_EQ(L"\xFEFFx", decoded(reply_decoding::utf_16, "\xFF\xFEx\0"sv))
        << "a mark is a unit like any other";
    EXPECT_EQ(L"\xDE00", decoded(reply_decoding::utf_16, "\x00\xDE"sv)) << "half a pair, too";
}

TEST(decoding, of_utf_16_ends_with_the_first_zero_unit_or_the_last_whole_one) {
    EXPECT_EQ(L"ab", decoded(reply_decoding::utf_16, "a\0b\0\0\0c\0"sv));
    EXPECT_EQ(L"\x0100z", decoded(reply_decoding::utf_16, "\0\x01z\0"sv)) << "a zero byte is not a zero unit";
    EXPECT_EQ(L"a", decoded(reply_decoding::utf_16, "a\0b"sv));
}

TEST(decoding, of_utf_16_is_empty_below_two_bytes) {
    EXPECT_EQ(L"", decoded(reply_decoding::utf_16, ""));
    EXPECT_EQ(L"", decoded(reply_decoding::utf_16, "a"));
}

TEST(decoding, is_empty_where_there_is_none) {
    EXPECT_EQ(L"", decoded(reply_decoding::none, ""));
    EXPECT_EQ(L"", decoded(reply_decoding::none, "a\0\0\0"sv));
}

TEST(decoding, of_an_empty_body_is_empty) {
    for (const reply_decoding how : every_way) {
        EXPECT_EQ(L"", corvo::errorreport::decode_reply(how, nullptr, 0));
    }
}

TEST(decoding, of_a_code_page_ends_with_the_first_zero) {
    for (const reply_decoding how :
         {reply_decoding::windows_1250, reply_decoding::utf_7, reply_decoding::utf_8}) {
        EXPECT_EQ(L"ab", decoded(how, "ab\0cd"sv));
        EXPECT_EQ(L"", decoded(how, "\0cd"sv));
    }
}

TEST(decoding, takes_texts_longer_than_its_first_buffer) {
    for (const std::size_t length : {511U, 512U, 513U, 100000U}) {
        EXPECT_EQ(std::wstring(length, L'\x010D'),
                  decoded(reply_decoding::windows_1250, std::string(length, '\xE8')));
    }
}

TEST(decoding, replaces_a_character_that_was_cut) {
    EXPECT_EQ(L"a\xFFFD", decoded(reply_decoding::utf_8, "a\xC4"));
    EXPECT_EQ(L"a\xFFFD", decoded(reply_decoding::utf_8, "a\xF0\x9F\x98").substr(0, 2));
    EXPECT_EQ(L"a", decoded(reply_decoding::utf_7, "a+AQ").substr(0, 1));
}

TEST(decoding, that_the_system_refuses_throws) {
    std::vector<UINT> asked;
    const support::script convert(support::MultiByteToWideChar,
                                  [&](UINT code_page, DWORD flags, auto...) -> int {
                                      asked.push_back(code_page);
                                      EXPECT_EQ(0U, flags);
                                      ::SetLastError(1113);
                                      return 0;
                                  });
    for (const reply_decoding how :
         {reply_decoding::windows_1250, reply_decoding::utf_7, reply_decoding::utf_8}) {
        try {
            decoded(how, "a");
            ADD_FAILURE() << "nothing was thrown";
        } catch (const std::system_error& error) {
            EXPECT_EQ(1113, error.code().value());
            EXPECT_EQ("MultiByteToWideChar failed: " + std::system_category().message(1113), error.what());
        }
    }
    EXPECT_EQ((std::vector<UINT>{1250, 65000, 65001}), asked);
}
