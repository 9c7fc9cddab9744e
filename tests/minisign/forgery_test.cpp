// What an attacker can change without being noticed: nothing that matters. Every bit of a signature file and of what it signs is
// turned over, one at a time.

#include "minisign/verifier.h"
#include "tests/minisign/fixtures.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <string_view>

namespace {

using corvo::minisign::content_verifies;
using corvo::minisign::find_trusted_key;
using corvo::minisign::read_signature;
using corvo::minisign::signature;
using fixtures::test_key;

signature read(const std::string& text) {
    corvo::stream::memory_file file;
    fixtures::fill(file, text);
    return read_signature(file);
}

// The whole judgement, as of the fetch of signed content.
bool accepted(const std::string& content, const std::string& signature_file) {
    try {
        const signature made = read(signature_file);
        corvo::stream::memory_file file;
        fixtures::fill(file, content);
        return content_verifies(file, made, find_trusted_key(made, &test_key, 1), nullptr);
    } catch (const std::runtime_error&) {
        return false;
    }
}

std::string with_bit_turned(std::string text, std::size_t bit) {
    text[bit / 8] = static_cast<char>(text[bit / 8] ^ (1 << (bit % 8)));
    return text;
}

} // namespace

TEST(forgery, of_any_bit_of_the_content_is_refused) {
    const std::string content(fixtures::text);
    ASSERT_TRUE(accepted(content, std::string(fixtures::text_minisig)));
    for (std::size_t bit = 0; bit < content.size() * 8; ++bit) {
        EXPECT_FALSE(accepted(with_bit_turned(content, bit), std::string(fixtures::text_minisig))) << bit;
    }
}

TEST(forgery, of_any_bit_of_a_content_of_several_blocks_is_refused) {
    const std::string content = fixtures::numbers();
    ASSERT_TRUE(accepted(content, std::string(fixtures::numbers_minisig)));
    for (std::size_t byte = 0; byte < content.size(); byte += 7) {
        EXPECT_FALSE(
            accepted(with_bit_turned(content, byte * 8 + byte % 8), std::string(fixtures::numbers_minisig)))
            << byte;
    }
}

// A changed signature file is accepted only if what is read of it did not change: in the text of the untrusted comment, after
// the signature line, and in the bits of base64 that carry nothing.
TEST(forgery, of_any_bit_of_a_signature_file_is_refused_or_changes_nothing) {
    const std::string content(fixtures::text);
    const std::string file(fixtures::text_minisig);
    const signature real = read(file);
    const std::size_t comment_text = std::string("untrusted comment:").size();
    const std::size_t line = file.find('\n') + 1;
    const std::size_t line_end = file.find('\n', line);
    ASSERT_EQ(100u, line_end - line);
    ASSERT_EQ('=', file[line_end - 1]);

    for (std::size_t bit = 0; bit < file.size() * 8; ++bit) {
        const std::string forged = with_bit_turned(file, bit);
        const std::size_t at = bit / 8;
        if (!accepted(content, forged)) {
            EXPECT_TRUE(at < comment_text || (at >= line - 1 && at <= line_end))
                << "needlessly refused: " << bit;
            continue;
        }
        const signature read_back = read(forged);
        EXPECT_EQ(real.algorithm, read_back.algorithm) << bit;
        EXPECT_EQ(real.id, read_back.id) << bit;
        EXPECT_EQ(real.bytes, read_back.bytes) << bit;
        EXPECT_TRUE((at >= comment_text && at < line - 1) || at >= line_end - 2) << "accepted: " << bit;
    }
}

TEST(forgery, of_any_character_of_the_signature_line_is_refused) {
    constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/=";
    const std::string content(fixtures::text);
    const std::string file(fixtures::text_minisig);
    const std::size_t line = file.find('\n') + 1;
    // The first 98 of the 100 characters carry nothing but the signature.
    for (std::size_t at = line; at < line + 98; ++at) {
        for (const char character : alphabet) {
            std::string forged = file;
            forged[at] = character;
            EXPECT_EQ(forged == file, accepted(content, forged)) << at << ' ' << character;
        }
    }
}

TEST(forgery, with_the_signature_of_other_content_is_refused) {
    EXPECT_FALSE(accepted(std::string(fixtures::text), std::string(fixtures::numbers_minisig)));
    EXPECT_FALSE(accepted(fixtures::numbers(), std::string(fixtures::text_minisig)));
    EXPECT_FALSE(accepted(std::string(fixtures::text), std::string(fixtures::empty_minisig)));
    EXPECT_FALSE(accepted("", std::string(fixtures::text_minisig)));
}

TEST(forgery, with_a_signature_of_another_key_is_refused) {
    EXPECT_FALSE(accepted(std::string(fixtures::text), std::string(fixtures::text_stranger_minisig)));
}

TEST(forgery, with_the_trusted_id_on_a_signature_of_another_key_is_refused) {
    signature made = read(std::string(fixtures::text_stranger_minisig));
    made.id = test_key.id;
    corvo::stream::memory_file file;
    fixtures::fill(file, fixtures::text);
    EXPECT_FALSE(content_verifies(file, made, find_trusted_key(made, &test_key, 1), nullptr));
}
