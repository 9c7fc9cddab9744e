#include "tools/report_reader/inflate.h"

#include "tests/tools/report_reader/bytes.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <string>

namespace {

using namespace corvo::report_reader;
using test::byte_vector;
using test::bytes;
using test::cut;
using test::join;

// "hello, hello", compressed at level 9.
byte_vector hello() {
    return bytes("78DACB48CDC9C9D751C80051001CDA0475");
}

byte_vector deflated(const byte_vector& plain) {
    uLongf size = compressBound(plain.size());
    byte_vector result(size);
    EXPECT_EQ(compress2(reinterpret_cast<Bytef*>(result.data()), &size,
                        reinterpret_cast<const Bytef*>(plain.data()), plain.size(), 9),
              Z_OK);
    result.resize(size);
    return result;
}

void expect_damage(const byte_vector& file, std::size_t offset, const std::string& text,
                   std::size_t limit = inflate_limit) {
    try {
        inflate(file, limit);
        ADD_FAILURE() << "inflated; expected: " << text;
    } catch (const damage& error) {
        EXPECT_EQ(error.where(), damaged_bytes::file);
        EXPECT_EQ(error.offset(), offset);
        EXPECT_NE(std::string(error.what()).find(" of the file: " + text), std::string::npos) << error.what();
    }
}

TEST(report_reader_inflate, gives_what_was_compressed) {
    EXPECT_EQ(inflate(hello()), bytes("\"hello, hello\""));
    EXPECT_TRUE(inflate(bytes("78DA030000000001")).empty());
}

TEST(report_reader_inflate, gives_more_than_one_piece) {
    byte_vector plain(200'000);
    for (std::size_t index = 0; index < plain.size(); ++index) {
        plain[index] = static_cast<std::byte>(index * index >> 7);
    }
    EXPECT_EQ(inflate(deflated(plain)), plain);
}

TEST(report_reader_inflate, every_truncation_is_found_where_the_file_ends) {
    ASSERT_EQ(hello().size(), 17u);
    for (std::size_t size = 0; size < 17; ++size) {
        SCOPED_TRACE(size);
        expect_damage(cut(hello(), size), size, "the compressed stream ends early");
    }
}

TEST(report_reader_inflate, bytes_behind_the_stream_are_found_where_they_begin) {
    expect_damage(join({hello(), bytes("00")}), 17, "1 bytes behind the compressed stream");
    expect_damage(join({hello(), hello()}), 17, "17 bytes behind the compressed stream");
}

TEST(report_reader_inflate, a_wrong_check_value_is_found) {
    byte_vector file = hello();
    file.back() ^= std::byte{1};
    expect_damage(file, 17, "not a compressed stream: incorrect data check");
}

TEST(report_reader_inflate, other_formats_are_refused) {
    expect_damage(bytes("\"TZO1\" 64AA"), 2, "not a compressed stream: incorrect header check");
    expect_damage(bytes("1F8B0800000000000003"), 2, "not a compressed stream: incorrect header check");
    // A preset dictionary.
    expect_damage(bytes("78F9 00000001 0300 00000001"), 6, "the compressed stream asks for a dictionary");
}

TEST(report_reader_inflate, what_fills_the_limit_is_given) {
    EXPECT_EQ(inflate(hello(), 12).size(), 12u);
    expect_damage(hello(), 17, "it inflates to more than 11 bytes", 11);
    expect_damage(hello(), 17, "it inflates to more than 0 bytes", 0);
    // Reached in the second piece.
    const byte_vector zeros = deflated(byte_vector(100'000));
    EXPECT_EQ(inflate(zeros, 100'000).size(), 100'000u);
    EXPECT_THROW(inflate(zeros, 99'999), damage);
}

// 256 MB and one byte of zeros from 261 KB.
TEST(report_reader_inflate, a_bomb_does_not_go_off) {
    const byte_vector bomb = deflated(byte_vector(268'435'457));
    ASSERT_LT(bomb.size(), 300'000u);
    try {
        inflate(bomb);
        ADD_FAILURE();
    } catch (const damage& error) {
        EXPECT_LE(error.offset(), bomb.size());
        EXPECT_NE(std::string(error.what()).find("it inflates to more than 268435456 bytes"),
                  std::string::npos)
            << error.what();
    }
}

TEST(report_reader_inflate, an_upload_body_is_called_so) {
    try {
        inflate(cut(hello(), 3), inflate_limit, damaged_bytes::body);
        ADD_FAILURE();
    } catch (const damage& error) {
        EXPECT_STREQ(error.what(), "damaged at byte 3 (0x3) of the body without its chunk framing: the "
                                   "compressed stream ends early");
    }
}

} // namespace
