#include "minisign/base64.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

namespace {

using namespace std::string_literals;
using corvo::minisign::base64_decoder;

std::string decode(std::string_view text) {
    std::string output;
    base64_decoder().decode(text, output);
    return output;
}

} // namespace

TEST(base64, decodes_the_examples_of_rfc_4648) {
    EXPECT_EQ("", decode(""));
    EXPECT_EQ("f", decode("Zg=="));
    EXPECT_EQ("fo", decode("Zm8="));
    EXPECT_EQ("foo", decode("Zm9v"));
    EXPECT_EQ("foob", decode("Zm9vYg=="));
    EXPECT_EQ("fooba", decode("Zm9vYmE="));
    EXPECT_EQ("foobar", decode("Zm9vYmFy"));
}

TEST(base64, knows_each_letter_of_the_alphabet) {
    EXPECT_EQ(
        "\x00\x10\x83\x10\x51\x87\x20\x92\x8b\x30\xd3\x8f\x41\x14\x93\x51\x55\x97\x61\x96\x9b\x71\xd7\x9f"
        "\x82\x18\xa3\x92\x59\xa7\xa2\x9a\xab\xb2\xdb\xaf\xc3\x1c\xb3\xd3\x5d\xb7\xe3\x9e\xbb\xf3\xdf\xbf"s,
        decode("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/"));
}

TEST(base64, skips_each_byte_outside_the_alphabet) {
    const std::string alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/=";
    for (int byte = 0; byte < 256; ++byte) {
        const char c = static_cast<char>(byte);
        if (alphabet.find(c) != std::string::npos) {
            continue;
        }
        const std::string noise(3, c);
        EXPECT_EQ("foobar", decode(noise + "Z" + noise + "m9v" + noise + "YmF" + noise + "y" + noise))
            << byte;
    }
}

TEST(base64, takes_no_letter_of_the_url_alphabet) {
    EXPECT_EQ("", decode("-_-_"));
}

TEST(base64, stops_at_padding) {
    EXPECT_EQ("f", decode("Zg==Zm9v"));
    EXPECT_EQ("fo", decode("Zm8=Zm9v"));
}

// The third value decides alone; what stands behind it does not matter.
TEST(base64, stops_at_padding_in_the_third_place_whatever_is_in_the_fourth) {
    EXPECT_EQ("f", decode("Zg=AZm9v"));
}

// The first byte of a group is always given out, even if the group has padding in its first or second
// place.
TEST(base64, gives_the_first_byte_of_a_group_of_padding) {
    EXPECT_EQ("\x04", decode("===="));
    EXPECT_EQ("\x04", decode("A==="));
    EXPECT_EQ("\x04\x0f\xff", decode("A=//"));
    EXPECT_EQ("\x03\xff\xff", decode("=///"));
}

TEST(base64, yields_nothing_for_a_last_group_without_padding) {
    EXPECT_EQ("", decode("Z"));
    EXPECT_EQ("", decode("Zg"));
    EXPECT_EQ("", decode("Zm8"));
    EXPECT_EQ("foo", decode("Zm9vYg"));
    EXPECT_EQ("foo", decode("Zm9vYmE"));
    EXPECT_EQ("", decode("Zg="));
}

TEST(base64, goes_on_in_the_next_call_wherever_the_text_is_split) {
    const std::string text = "Zm9v YmFy\r\nZm8=Zm9v";
    for (std::size_t first = 0; first <= text.size(); ++first) {
        for (std::size_t second = first; second <= text.size(); ++second) {
            std::string output = "before ";
            base64_decoder decoder;
            decoder.decode(text.substr(0, first), output);
            decoder.decode(text.substr(first, second - first), output);
            decoder.decode(text.substr(second), output);
            EXPECT_EQ("before foobarfo", output);
        }
    }
}

// Three bytes for four letters, whatever of the text turns out to be letters.
TEST(base64, makes_room_for_the_whole_text_beforehand) {
    std::string output = "before";
    base64_decoder decoder;
    decoder.decode(std::string(4001, ' '), output);
    EXPECT_EQ("before", output);
    EXPECT_LE(6U + 3003U, output.capacity());
    decoder.decode("Zm9", output); // remains pending, and counts next time
    // Rounded down, the text alone fits what is there; with the three that are pending it needs more.
    const std::size_t room = output.capacity() - 6;
    const std::size_t text = room / 3 * 4 + 1;
    decoder.decode(std::string(text, ' '), output);
    EXPECT_LE(6 + (3 + text + 3) / 4 * 3, output.capacity());
    EXPECT_LT(room, output.capacity() - 6);
    // And no move while the bytes come.
    std::string whole;
    base64_decoder other;
    other.decode(std::string(4000, 'A') + "=", whole);
    EXPECT_EQ(3000U, whole.size());
    EXPECT_GT(6000U, whole.capacity());
}

TEST(base64, stays_stopped_in_later_calls) {
    std::string output;
    base64_decoder decoder;
    decoder.decode("Zg==", output);
    decoder.decode("Zm9v", output);
    EXPECT_EQ("f", output);
}
