#include "errorreport/reply_text.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <string_view>

namespace {

using namespace std::string_view_literals;
using corvo::errorreport::decoding_for;
using corvo::errorreport::is_plain_text;
using corvo::errorreport::reply_decoding;

struct split {
    std::string media_type;
    std::string charset;
};

bool operator==(const split& left, const split& right) {
    return left.media_type == right.media_type && left.charset == right.charset;
}

void PrintTo(const split& value, std::ostream* out) {
    *out << "\"" << value.media_type << "\", \"" << value.charset << "\"";
}

// The text stands in a block of its very size, so that a read past it shows.
split of(std::string_view value) {
    const auto copy = std::make_unique<char[]>(value.size());
    std::memcpy(copy.get(), value.data(), value.size());
    const auto [media_type, charset] = corvo::errorreport::split_content_type({copy.get(), value.size()});
    return {std::string(media_type), std::string(charset)};
}

} // namespace

TEST(content_type, without_a_semicolon_is_a_media_type_alone) {
    EXPECT_EQ((split{"text/plain", ""}), of("text/plain"));
    EXPECT_EQ((split{"", ""}), of(""));
    EXPECT_EQ((split{"text/plain charset=utf-8", ""}), of("text/plain charset=utf-8"));
}

TEST(content_type, has_a_charset_after_the_semicolon) {
    EXPECT_EQ((split{"text/plain", "utf-8"}), of("text/plain;charset=utf-8"));
    EXPECT_EQ((split{"text/plain", "utf-8"}), of("text/plain; charset=utf-8"));
    EXPECT_EQ((split{"text/plain", "utf-8"}), of("text/plain; \t\n\v\f\rcharset=utf-8"));
    EXPECT_EQ((split{"", "x"}), of(";charset=x"));
}

TEST(content_type, keeps_the_case_of_what_it_says) {
    EXPECT_EQ((split{"Text/Plain", "UTF-16"}), of("Text/Plain; Charset=UTF-16"));
    EXPECT_EQ((split{"TEXT/PLAIN", "Utf-16"}), of("TEXT/PLAIN;CHARSET=Utf-16"));
}

TEST(content_type, has_no_charset_where_the_parameter_has_another_name) {
    EXPECT_EQ((split{"text/plain", ""}), of("text/plain;"));
    EXPECT_EQ((split{"text/plain", ""}), of("text/plain; "));
    EXPECT_EQ((split{"text/plain", ""}), of("text/plain; charse=utf-8"));
    EXPECT_EQ((split{"text/plain", ""}), of("text/plain; charsets=utf-8"));
    EXPECT_EQ((split{"text/plain", ""}), of("text/plain; xcharset=utf-8"));
    EXPECT_EQ((split{"text/plain", ""}), of("text/plain; charset"));
    EXPECT_EQ((split{"text/plain", ""}), of("text/plain; utf-8"));
    EXPECT_EQ((split{"text/plain", ""}), of("text/plain; ch\xe0rset=utf-8"));
}

TEST(content_type, wants_the_equals_sign_directly_behind_the_name) {
    EXPECT_EQ((split{"text/plain", ""}), of("text/plain; charset =utf-8"));
}

TEST(content_type, has_an_empty_charset_where_white_space_or_nothing_follows) {
    EXPECT_EQ((split{"text/plain", ""}), of("text/plain; charset="));
    EXPECT_EQ((split{"text/plain", ""}), of("text/plain; charset= utf-8"));
}

TEST(content_type, ends_its_charset_at_white_space) {
    for (const char* space : {" ", "\t", "\n", "\v", "\f", "\r"}) {
        EXPECT_EQ((split{"text/plain", "utf-16"}),
                  of(std::string("text/plain; charset=utf-16") + space + "x"));
    }
    EXPECT_EQ((split{"text/plain", "utf-16\xa0x"}), of("text/plain; charset=utf-16\xa0x"));
}

// Not what the grammar of HTTP says, but what servers of this system were written for.
TEST(content_type, ends_its_charset_at_nothing_but_white_space) {
    EXPECT_EQ((split{"text/plain", "utf-16;format=flowed"}), of("text/plain; charset=utf-16;format=flowed"));
    EXPECT_EQ((split{"text/plain", "utf-16;"}), of("text/plain; charset=utf-16; format=flowed"));
    EXPECT_EQ((split{"text/plain", "\"utf-16\""}), of("text/plain; charset=\"utf-16\""));
    EXPECT_EQ((split{"text/plain", "a=b"}), of("text/plain; charset=a=b"));
}

TEST(content_type, looks_at_the_first_parameter_only) {
    EXPECT_EQ((split{"text/plain", ""}), of("text/plain; format=flowed; charset=utf-8"));
    EXPECT_EQ((split{"text/plain", ""}), of("text/plain;; charset=utf-8"));
}

TEST(content_type, keeps_the_blank_before_the_semicolon) {
    EXPECT_EQ((split{"text/plain ", "utf-8"}), of("text/plain ; charset=utf-8"));
}

TEST(media_type, is_plain_text_in_any_case) {
    EXPECT_TRUE(is_plain_text("text/plain"));
    EXPECT_TRUE(is_plain_text("Text/Plain"));
    EXPECT_TRUE(is_plain_text("TEXT/PLAIN"));
}

TEST(media_type, is_no_plain_text_otherwise) {
    for (const std::string_view type :
         {""sv, "text/html"sv, "text/plain "sv, " text/plain"sv, "text/plainx"sv, "text/plai"sv,
          "text\x0fplain"sv, "text/plain\0"sv, "application/octet-stream"sv}) {
        EXPECT_FALSE(is_plain_text(type)) << type;
    }
}

TEST(charset, decides_the_decoding) {
    struct row {
        const char* charset;
        reply_decoding decoding;
    };
    for (const auto& [charset, decoding] : {
             row{"", reply_decoding::windows_1250}, // no charset is not UTF-8 here
             row{"windows-1250", reply_decoding::windows_1250},
             row{"Windows-1250", reply_decoding::windows_1250},
             row{"WINDOWS-1250", reply_decoding::windows_1250},
             row{"utf-7", reply_decoding::utf_7},
             row{"UTF-7", reply_decoding::utf_7},
             row{"utf-16", reply_decoding::utf_16},
             row{"uTf-16", reply_decoding::utf_16},
             row{"utf-32", reply_decoding::none},
             row{"UTF-32", reply_decoding::none},
             row{"utf-8", reply_decoding::utf_8},
             row{"UTF-8", reply_decoding::utf_8},
             row{"us-ascii", reply_decoding::utf_8},
             row{"iso-8859-2", reply_decoding::utf_8},
             row{"windows-1252", reply_decoding::utf_8},
             row{"windows-12500", reply_decoding::utf_8},
             row{"windows-125", reply_decoding::utf_8},
             row{"utf-16le", reply_decoding::utf_8},
             row{"utf-16;", reply_decoding::utf_8},
             row{"\"utf-16\"", reply_decoding::utf_8},
             row{"utf-1", reply_decoding::utf_8},
             row{"utf16", reply_decoding::utf_8},
             row{"utf-77", reply_decoding::utf_8},
             row{"utf-320", reply_decoding::utf_8},
             row{"nonsense", reply_decoding::utf_8},
         }) {
        EXPECT_EQ(decoding, decoding_for(charset)) << charset;
    }
}
