#include "minisign/signature.h"

#include "tests/minisign/fixtures.h"
#include "tests/stream/expect.h"

#include <gtest/gtest.h>

#include <array>
#include <stdexcept>
#include <string>
#include <string_view>

namespace {

using namespace std::string_literals;
using corvo::minisign::read_signature;
using corvo::minisign::signature;

// Of fixtures/text.minisig.
const std::string line =
    "RUSdBpKBlweqR9Dd/YV69CnjtO16VfZSakMDHOxYGEXfWgVcbPZxFP+H5Oq5m0dUl+utVDnHYdr4YsO+qGgkGsQX+rWkpsV4Pw0=";
constexpr std::array<unsigned char, 64> bytes_of_line{
    0xd0, 0xdd, 0xfd, 0x85, 0x7a, 0xf4, 0x29, 0xe3, 0xb4, 0xed, 0x7a, 0x55, 0xf6, 0x52, 0x6a, 0x43,
    0x03, 0x1c, 0xec, 0x58, 0x18, 0x45, 0xdf, 0x5a, 0x05, 0x5c, 0x6c, 0xf6, 0x71, 0x14, 0xff, 0x87,
    0xe4, 0xea, 0xb9, 0x9b, 0x47, 0x54, 0x97, 0xeb, 0xad, 0x54, 0x39, 0xc7, 0x61, 0xda, 0xf8, 0x62,
    0xc3, 0xbe, 0xa8, 0x68, 0x24, 0x1a, 0xc4, 0x17, 0xfa, 0xb5, 0xa4, 0xa6, 0xc5, 0x78, 0x3f, 0x0d};

signature read(std::string_view text) {
    corvo::stream::memory_file file;
    fixtures::fill(file, text);
    return read_signature(file);
}

void expect_line_read(std::string_view text) {
    const signature made = read(text);
    EXPECT_EQ('D', made.algorithm);
    EXPECT_EQ(0x47AA07978192069Du, made.id);
    EXPECT_EQ(bytes_of_line, made.bytes);
}

void expect_too_short(std::string_view text) {
    test::expect_throw<std::runtime_error>("Minisign signature is too short", [&] { read(text); });
}

// Input that fails after its first bytes.
class failing_source : public corvo::stream::basic {
public:
    explicit failing_source(std::string text) : m_text(std::move(text)) {}
    std::size_t read(void* data, std::size_t length) override {
        if (m_position == m_text.size() || length == 0) {
            m_state = corvo::stream::state_t::fail;
            return 0;
        }
        *static_cast<char*>(data) = m_text[m_position++];
        m_state = corvo::stream::state_t::ok;
        return 1;
    }

private:
    std::string m_text;
    std::size_t m_position = 0;
};

} // namespace

TEST(read_signature, reads_a_file_of_the_minisign_program) {
    expect_line_read(fixtures::text_minisig);
}

TEST(read_signature, tells_a_legacy_signature_by_its_second_byte) {
    const signature made = read(fixtures::text_legacy_minisig);
    EXPECT_EQ('d', made.algorithm);
    EXPECT_EQ(0x47AA07978192069Du, made.id);
    EXPECT_EQ(0xe4, made.bytes[0]);
    EXPECT_EQ(0x00, made.bytes[63]);
}

TEST(read_signature, returns_any_second_byte_as_it_is) {
    const std::string other = "RVud" + line.substr(4); // "E", "["
    EXPECT_EQ('[', read(other + "\n").algorithm);
}

TEST(read_signature, needs_no_comment) {
    expect_line_read(line + "\n");
}

TEST(read_signature, skips_empty_lines_and_any_number_of_comments) {
    expect_line_read("\n\r\nuntrusted comment: a\nuntrusted comment:\n\nuntrusted comment: b\r\n" + line +
                     "\n");
}

TEST(read_signature, ends_lines_with_carriage_returns_too) {
    expect_line_read("untrusted comment: a\r\n" + line + "\r\n");
}

TEST(read_signature, skips_spaces_and_line_wrapping_characters_inside_the_line) {
    std::string spread;
    for (const char c : line) {
        spread += c;
        spread += " \t\r\v\f"s;
    }
    expect_line_read(spread + "\n");
}

TEST(read_signature, skips_bytes_outside_the_alphabet_inside_the_line) {
    expect_line_read("-_\xff\x80\0"s + line + "-_\xff\n");
}

TEST(read_signature, does_not_read_what_follows_the_line) {
    expect_line_read(line + "\ntrusted comment: says anything\n!!!\n");
    expect_line_read(line + "\n" + std::string(100, '=') + "\n");
    expect_line_read(line + "\ntrusted comment: no line feed");
}

TEST(read_signature, takes_the_first_other_line_alone) {
    expect_too_short("RUSd\n" + line + "\n");
}

TEST(read_signature, of_an_empty_file_is_too_short) {
    expect_too_short("");
}

TEST(read_signature, of_only_comments_is_too_short) {
    expect_too_short("untrusted comment: a\nuntrusted comment: b\n\n");
}

TEST(read_signature, does_not_see_a_last_line_without_its_line_feed) {
    expect_too_short(line);
    expect_too_short("untrusted comment: a\n" + line);
}

TEST(read_signature, takes_a_line_of_spaces_for_the_signature_line) {
    expect_too_short("   \n" + line + "\n");
    expect_too_short("\t\n" + line + "\n");
}

TEST(read_signature, takes_a_lone_carriage_return_for_the_signature_line) {
    expect_too_short("\r\r\n" + line + "\n");
}

TEST(read_signature, takes_a_comment_in_another_spelling_for_the_signature_line) {
    expect_too_short("Untrusted comment: a\n" + line + "\n");
    expect_too_short(" untrusted comment: a\n" + line + "\n");
}

TEST(read_signature, needs_74_bytes) {
    // 73 bytes: 96 characters give 72, "Pw==" one more.
    expect_too_short(line.substr(0, 96) + "Pw==\n");
    // 75 bytes without padding.
    expect_line_read(line.substr(0, 99) + "A\n");
}

TEST(read_signature, needs_padding_for_the_last_bytes) {
    expect_too_short(line.substr(0, 99) + "\n");
}

TEST(read_signature, ignores_bytes_beyond_the_74th) {
    expect_line_read(line.substr(0, 99) + "A" + std::string(400, 'x') + "\n");
}

TEST(read_signature, of_another_first_byte_is_no_minisign_signature) {
    test::expect_throw<std::runtime_error>("not a Minisign signature",
                                           [] { read("e" + line.substr(1) + "\n"); });
    test::expect_throw<std::runtime_error>("not a Minisign signature",
                                           [] { read(std::string(100, 'A') + "\n"); });
}

TEST(read_signature, begins_with_an_upper_case_e_and_nothing_else) {
    constexpr std::string_view digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    for (unsigned first = 0; first < 256; ++first) {
        // The first byte is in the first digit and in the upper two bits of the second, whose others are those of "D".
        const std::string begun{digits[first >> 2], digits[(first & 3) << 4 | 'D' >> 4]};
        if (first == 'E') {
            EXPECT_EQ(line.substr(0, 2), begun);
        } else {
            test::expect_throw<std::runtime_error>("not a Minisign signature",
                                                   [&] { read(begun + line.substr(2) + "\n"); });
        }
    }
}

TEST(read_signature, looks_at_the_length_before_the_first_byte) {
    expect_too_short("AAAA\n");
}

TEST(read_signature, reads_from_the_position_of_the_stream) {
    corvo::stream::memory_file file;
    fixtures::fill(file, "junk" + line + "\n");
    file.seek(4, corvo::stream::seek_beg);
    EXPECT_EQ(0x47AA07978192069Du, read_signature(file).id);
}

TEST(read_signature, takes_the_key_id_as_a_little_endian_number) {
    // "ED", then the bytes 1 to 8, then zeros.
    EXPECT_EQ(0x0807060504030201u, read("RUQBAgMEBQYHCA" + std::string(84, 'A') + "AA=\n").id);
    // All bits set.
    EXPECT_EQ(0xffffffffffffffffu, read("RUT//////////w" + std::string(84, 'A') + "AA=\n").id);
}

TEST(read_signature, of_a_source_that_fails_is_too_short) {
    failing_source source("untrusted comment: a\n" + line);
    test::expect_throw<std::runtime_error>("Minisign signature is too short",
                                           [&] { read_signature(source); });
}
