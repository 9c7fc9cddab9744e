// The same long random sequence of reads, writes, seeks, cuts and flushes on a plain file and on one behind a cache:
// after each step both have delivered the same bytes, and have the same state, position and size.
//
// The sequence is that of the seed. Lengths and positions lie around the boundaries of the cache's blocks. Seeks
// from the end follow a flush, since before it a cache counts from the end that the file has without the block.
#pragma once

#include "stream/basic_file.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace test {

struct random_sequence {
    unsigned int operations;
    std::size_t capacity;
    unsigned int seed;
};

inline void expect_alike(corvo::stream::basic_file& plain, corvo::stream::basic_file& cached,
                         const random_sequence& sequence) {
    using corvo::stream::foff;
    using corvo::stream::fsize;
    std::mt19937 random(sequence.seed);
    const auto below = [&](std::size_t limit) { return static_cast<std::size_t>(random() % limit); };
    // Small pieces, pieces of some blocks, and some that end exactly where a block does.
    const auto some_length = [&]() -> std::size_t {
        switch (below(4)) {
        case 0:
            return below(4);
        case 1:
            return below(sequence.capacity + 2);
        case 2:
            return below(4 * sequence.capacity + 3);
        default:
            const std::size_t rest = sequence.capacity - plain.tell() % sequence.capacity;
            return rest + below(3) * sequence.capacity;
        }
    };
    const auto some_position = [&] {
        return below(2) == 0 ? below(12) * sequence.capacity : below(12 * sequence.capacity);
    };
    std::vector<unsigned char> expected;
    std::vector<unsigned char> delivered;
    for (unsigned int step = 0; step < sequence.operations; ++step) {
        std::string what;
        std::size_t ours = 0;
        std::size_t theirs = 0;
        const std::size_t choice = below(20);
        if (choice < 7) {
            const std::size_t length = some_length();
            what = "read " + std::to_string(length);
            expected.assign(length, 0xEE);
            delivered.assign(length, 0xEE);
            theirs = plain.read(expected.data(), length);
            ours = cached.read(delivered.data(), length);
            ASSERT_EQ(expected, delivered) << what << " in step " << step;
        } else if (choice < 13) {
            const std::size_t length = some_length();
            what = "write " + std::to_string(length);
            expected.resize(length);
            for (unsigned char& byte : expected) {
                byte = static_cast<unsigned char>(random());
            }
            theirs = plain.write(expected.data(), length);
            ours = cached.write(expected.data(), length);
        } else if (choice < 16) {
            const std::size_t position = some_position();
            what = "seek to " + std::to_string(position);
            theirs = plain.seek(static_cast<foff>(position), corvo::stream::seek_beg);
            ours = cached.seek(static_cast<foff>(position), corvo::stream::seek_beg);
        } else if (choice == 16) {
            const auto offset = static_cast<foff>(below(30)) - static_cast<foff>(below(plain.tell() + 1));
            what = "seek by " + std::to_string(offset);
            theirs = plain.seek(offset, corvo::stream::seek_cur);
            ours = cached.seek(offset, corvo::stream::seek_cur);
        } else if (choice == 17) {
            const auto offset = static_cast<foff>(below(30)) - static_cast<foff>(below(plain.size() + 1));
            what = "flush, and seek from the end by " + std::to_string(offset);
            cached.flush();
            theirs = plain.seek(offset, corvo::stream::seek_end);
            ours = cached.seek(offset, corvo::stream::seek_end);
        } else if (choice == 18) {
            what = "flush";
            plain.flush();
            cached.flush();
        } else {
            what = "truncate at " + std::to_string(plain.tell());
            plain.truncate();
            cached.truncate();
        }
        ASSERT_EQ(theirs, ours) << what << " in step " << step;
        ASSERT_EQ(plain.state(), cached.state()) << what << " in step " << step;
        ASSERT_EQ(plain.tell(), cached.tell()) << what << " in step " << step;
        ASSERT_EQ(plain.size(), cached.size()) << what << " in step " << step;
    }
}

} // namespace test
