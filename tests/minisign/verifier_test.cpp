#include "minisign/verifier.h"

#include "platform/user_cancelled.h"
#include "tests/minisign/fixtures.h"
#include "tests/stream/expect.h"

#include <gtest/gtest.h>
#include <sodium.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using corvo::minisign::content_hash;
using corvo::minisign::content_verifies;
using corvo::minisign::find_trusted_key;
using corvo::minisign::hashing_writer;
using corvo::minisign::signature;
using corvo::minisign::trusted_key;
using corvo::stream::state_t;
using fixtures::test_key;

signature read(std::string_view text) {
    corvo::stream::memory_file file;
    fixtures::fill(file, text);
    return corvo::minisign::read_signature(file);
}

bool verifies(std::string_view content, std::string_view signature_file) {
    corvo::stream::memory_file file;
    fixtures::fill(file, content);
    return content_verifies(file, read(signature_file), test_key, nullptr);
}

signature made_by(std::uint64_t id, char algorithm = 'D') {
    signature result{};
    result.algorithm = algorithm;
    result.id = id;
    return result;
}

class indicator : public corvo::progress<std::uint64_t> {
public:
    void set_range(std::uint64_t, std::uint64_t) override { ++ranges; }
    void set(std::uint64_t position) override { positions.push_back(position); }
    bool cancel() override { return ++asked == cancel_at; }
    std::vector<std::uint64_t> positions;
    int ranges = 0;
    int asked = 0;
    int cancel_at = 0;
};

// A file that writes down how it is read, and fails on demand.
class watched_file : public corvo::stream::memory_file {
public:
    std::size_t read(void* data, std::size_t length) override {
        sizes.push_back(length);
        if (sizes.size() == fail_at) {
            m_state = state_t::fail;
            return 0;
        }
        return memory_file::read(data, std::min(length, longest_piece));
    }
    corvo::stream::fpos seek(corvo::stream::foff offset, corvo::stream::seek_t how) override {
        if (seek_fails) {
            m_state = state_t::fail;
            return corvo::stream::fpos_max;
        }
        return memory_file::seek(offset, how);
    }
    corvo::stream::fsize size() override { return says_empty ? 0 : memory_file::size(); }
    std::vector<std::size_t> sizes;
    bool says_empty = false;
    std::size_t fail_at = 0;
    std::size_t longest_piece = 1000000;
    bool seek_fails = false;
};

} // namespace

TEST(find_trusted_key, finds_the_record_of_the_key_id) {
    const trusted_key keys[] = {{1, {10}}, {2, {20}}, {3, {30}}};
    EXPECT_EQ(&keys[0], &find_trusted_key(made_by(1), keys, 3));
    EXPECT_EQ(&keys[1], &find_trusted_key(made_by(2), keys, 3));
    EXPECT_EQ(&keys[2], &find_trusted_key(made_by(3), keys, 3));
}

TEST(find_trusted_key, takes_the_first_of_two_records_with_one_id) {
    const trusted_key keys[] = {{1, {10}}, {2, {20}}, {2, {21}}, {2, {22}}};
    EXPECT_EQ(&keys[1], &find_trusted_key(made_by(2), keys, 4));
}

TEST(find_trusted_key, compares_all_64_bits) {
    const trusted_key keys[] = {{0x0123456789abcdef, {}}};
    EXPECT_EQ(&keys[0], &find_trusted_key(made_by(0x0123456789abcdef), keys, 1));
    for (int bit = 0; bit < 64; ++bit) {
        const std::uint64_t other = 0x0123456789abcdef ^ (std::uint64_t{1} << bit);
        test::expect_throw<std::runtime_error>("Untrusted Minisign key",
                                               [&] { find_trusted_key(made_by(other), keys, 1); });
    }
}

TEST(find_trusted_key, does_not_combine_two_records_into_a_match) {
    // Each differs from the id, yet no bit differs in both.
    const trusted_key keys[] = {{0x0f, {}}, {0xf0, {}}};
    test::expect_throw<std::runtime_error>("Untrusted Minisign key",
                                           [&] { find_trusted_key(made_by(0x00), keys, 2); });
}

TEST(find_trusted_key, in_an_empty_table_finds_none) {
    test::expect_throw<std::runtime_error>("Untrusted Minisign key",
                                           [] { find_trusted_key(made_by(1), nullptr, 0); });
}

TEST(find_trusted_key, reads_no_record_beyond_the_count) {
    const trusted_key keys[] = {{1, {}}, {2, {}}};
    test::expect_throw<std::runtime_error>("Untrusted Minisign key",
                                           [&] { find_trusted_key(made_by(2), keys, 1); });
}

TEST(find_trusted_key, refuses_a_legacy_signature_of_a_trusted_key) {
    test::expect_throw<std::runtime_error>("Unsupported Minisign signature", [] {
        find_trusted_key(read(fixtures::text_legacy_minisig), &test_key, 1);
    });
}

TEST(find_trusted_key, refuses_every_other_algorithm) {
    const trusted_key keys[] = {{1, {}}};
    for (int byte = 0; byte < 256; ++byte) {
        if (byte != 'D') {
            test::expect_throw<std::runtime_error>("Unsupported Minisign signature", [&] {
                find_trusted_key(made_by(1, static_cast<char>(byte)), keys, 1);
            });
        }
    }
}

TEST(find_trusted_key, reports_an_untrusted_key_before_it_looks_at_the_algorithm) {
    const trusted_key keys[] = {{1, {}}};
    test::expect_throw<std::runtime_error>("Untrusted Minisign key",
                                           [&] { find_trusted_key(made_by(2, 'd'), keys, 1); });
}

TEST(find_trusted_key, does_not_trust_a_stranger) {
    test::expect_throw<std::runtime_error>("Untrusted Minisign key", [] {
        find_trusted_key(read(fixtures::text_stranger_minisig), &test_key, 1);
    });
}

TEST(content_verifies, accepts_what_the_minisign_program_signed) {
    EXPECT_TRUE(verifies(fixtures::text, fixtures::text_minisig));
    EXPECT_TRUE(verifies(fixtures::numbers(), fixtures::numbers_minisig));
    EXPECT_TRUE(verifies("", fixtures::empty_minisig));
}

TEST(content_verifies, refuses_changed_content) {
    const std::string text(fixtures::text);
    for (std::size_t i = 0; i < text.size(); ++i) {
        std::string changed = text;
        changed[i] = static_cast<char>(changed[i] ^ 1);
        EXPECT_FALSE(verifies(changed, fixtures::text_minisig)) << i;
    }
    EXPECT_FALSE(verifies(text + "x", fixtures::text_minisig));
    EXPECT_FALSE(verifies(text.substr(1), fixtures::text_minisig));
    EXPECT_FALSE(verifies(text.substr(0, text.size() - 1), fixtures::text_minisig));
    EXPECT_FALSE(verifies("", fixtures::text_minisig));
}

TEST(content_verifies, refuses_a_changed_last_block) {
    std::string changed = fixtures::numbers();
    changed.back() = ' ';
    EXPECT_FALSE(verifies(changed, fixtures::numbers_minisig));
}

TEST(content_verifies, refuses_a_signature_that_was_tampered_with) {
    for (const std::size_t byte : {std::size_t{0}, std::size_t{31}, std::size_t{32}, std::size_t{63}}) {
        signature made = read(fixtures::text_minisig);
        made.bytes[byte] ^= 1;
        corvo::stream::memory_file file;
        fixtures::fill(file, fixtures::text);
        EXPECT_FALSE(content_verifies(file, made, test_key, nullptr)) << byte;
    }
}

TEST(content_verifies, refuses_the_signature_of_a_stranger) {
    EXPECT_FALSE(verifies(fixtures::text, fixtures::text_stranger_minisig));
}

// A legacy signature is one over the content itself, not over its hash.
TEST(content_verifies, refuses_a_legacy_signature_even_if_it_is_asked_to_check_one) {
    EXPECT_FALSE(verifies(fixtures::text, fixtures::text_legacy_minisig));
}

TEST(content_verifies, refuses_another_key_of_the_same_id) {
    trusted_key other = test_key;
    other.key[0] ^= 1;
    corvo::stream::memory_file file;
    fixtures::fill(file, fixtures::text);
    EXPECT_FALSE(content_verifies(file, read(fixtures::text_minisig), other, nullptr));
}

TEST(content_verifies, reads_from_the_start_in_blocks_of_8192_bytes) {
    watched_file file;
    fixtures::fill(file, fixtures::numbers());
    file.seek(0, corvo::stream::seek_end);
    EXPECT_TRUE(content_verifies(file, read(fixtures::numbers_minisig), test_key, nullptr));
    EXPECT_EQ((std::vector<std::size_t>{8192, 8192, 8192, 8192}), file.sizes);
}

TEST(content_verifies, takes_reads_of_any_length) {
    watched_file file;
    file.longest_piece = 1;
    fixtures::fill(file, fixtures::text);
    EXPECT_TRUE(content_verifies(file, read(fixtures::text_minisig), test_key, nullptr));
    EXPECT_EQ(24u, file.sizes.size());
}

// If reading fails nobody has checked what follows, even if all that was read is what was signed.
TEST(content_verifies, refuses_a_file_that_cannot_be_read_to_its_end) {
    watched_file file;
    fixtures::fill(file, fixtures::text);
    file.fail_at = 2;
    EXPECT_FALSE(content_verifies(file, read(fixtures::text_minisig), test_key, nullptr));
    watched_file empty;
    empty.fail_at = 1;
    EXPECT_FALSE(content_verifies(empty, read(fixtures::empty_minisig), test_key, nullptr));
}

TEST(content_verifies, refuses_a_file_that_cannot_go_to_its_start) {
    watched_file file;
    fixtures::fill(file, fixtures::text);
    file.seek_fails = true;
    EXPECT_FALSE(content_verifies(file, read(fixtures::text_minisig), test_key, nullptr));
    EXPECT_TRUE(file.sizes.empty());
}

TEST(content_verifies, reports_from_100_to_1000_after_each_block) {
    corvo::stream::memory_file file;
    fixtures::fill(file, fixtures::numbers());
    ASSERT_EQ(18893u, file.size());
    indicator progress;
    EXPECT_TRUE(content_verifies(file, read(fixtures::numbers_minisig), test_key, &progress));
    // 100 + 900 * 8192 / 18893 = 490.2, 100 + 900 * 16384 / 18893 = 880.4
    EXPECT_EQ((std::vector<std::uint64_t>{490, 880, 1000}), progress.positions);
    EXPECT_EQ(3, progress.asked);
    EXPECT_EQ(0, progress.ranges);
}

TEST(content_verifies, reports_nothing_for_an_empty_file) {
    corvo::stream::memory_file file;
    indicator progress;
    progress.cancel_at = 1;
    EXPECT_TRUE(content_verifies(file, read(fixtures::empty_minisig), test_key, &progress));
    EXPECT_TRUE(progress.positions.empty());
}

TEST(content_verifies, reports_no_position_in_a_file_that_was_empty_when_it_began) {
    watched_file file;
    fixtures::fill(file, fixtures::numbers());
    file.says_empty = true;
    indicator progress;
    EXPECT_TRUE(content_verifies(file, read(fixtures::numbers_minisig), test_key, &progress));
    EXPECT_TRUE(progress.positions.empty());
    EXPECT_EQ(3, progress.asked);
}

TEST(content_verifies, stops_when_the_indicator_cancels) {
    watched_file file;
    fixtures::fill(file, fixtures::numbers());
    indicator progress;
    progress.cancel_at = 2;
    test::expect_throw<corvo::user_cancelled>("operation cancelled", [&] {
        content_verifies(file, read(fixtures::numbers_minisig), test_key, &progress);
    });
    EXPECT_EQ((std::vector<std::uint64_t>{490, 880}), progress.positions);
    EXPECT_EQ(2u, file.sizes.size());
}

// Without its initialisation the library hashes with the slowest code it has, and with the same result.
TEST(content_hash, has_the_librarys_fastest_code_chosen) {
    const content_hash hash;
    EXPECT_EQ(1, sodium_init()) << "0: it had not been initialised";
}

TEST(content_hash, does_not_care_how_content_is_split) {
    const std::string text(fixtures::text);
    for (std::size_t split = 0; split <= text.size(); ++split) {
        content_hash hash;
        hash.update(text.data(), split);
        hash.update(text.data() + split, text.size() - split);
        EXPECT_TRUE(hash.verify(read(fixtures::text_minisig), test_key)) << split;
    }
}

TEST(hashing_writer, hands_on_and_hashes_what_is_written) {
    corvo::stream::memory_file target;
    content_hash hash;
    hashing_writer writer(target, hash);
    EXPECT_EQ(8u, writer.write("Halvoro\n", 8));
    EXPECT_EQ(15u, writer.write("signed content\n", 15));
    EXPECT_EQ(state_t::ok, writer.state());
    EXPECT_EQ(fixtures::text, fixtures::contents(target, 23));
    EXPECT_TRUE(hash.verify(read(fixtures::text_minisig), test_key));
}

TEST(hashing_writer, has_the_state_of_its_target) {
    class refusing : public corvo::stream::basic {
    public:
        std::size_t write(const void*, std::size_t) override {
            m_state = state;
            return taken;
        }
        state_t state = state_t::fail;
        std::size_t taken = 3;
    } target;
    content_hash hash;
    hashing_writer writer(target, hash);
    EXPECT_EQ(3u, writer.write("Halvoro\n", 8));
    EXPECT_EQ(state_t::fail, writer.state());
    target.state = state_t::ok;
    target.taken = 8;
    EXPECT_EQ(8u, writer.write("Halvoro\n", 8));
    EXPECT_EQ(state_t::ok, writer.state());
}
