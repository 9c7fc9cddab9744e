#include "tools/report_reader/chunk_framing.h"

#include "tests/tools/report_reader/bytes.h"
#include "tools/report_reader/damage.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace corvo::report_reader;
using test::byte_vector;
using test::bytes;
using test::cut;
using test::join;

byte_vector framed() {
    return bytes(R"("5" 0D0A "hello" 0D0A "c" 0D0A ", hello, hel" 0D0A "02" 0D0A "lo" 0D0A "0" 0D0A 0D0A)");
}

void expect_damage(const byte_vector& body, std::size_t offset, const std::string& text) {
    try {
        remove_chunk_framing(body);
        ADD_FAILURE() << "accepted; expected: " << text;
    } catch (const damage& error) {
        EXPECT_EQ(error.where(), damaged_bytes::file);
        EXPECT_EQ(error.offset(), offset);
        EXPECT_NE(std::string(error.what()).find(" of the file: " + text), std::string::npos) << error.what();
    }
}

TEST(report_reader_chunk_framing, is_taken_off) {
    EXPECT_EQ(remove_chunk_framing(framed()), bytes(R"("hello, hello, hello")"));
    EXPECT_TRUE(remove_chunk_framing(bytes("30 0D0A 0D0A")).empty());
    EXPECT_EQ(remove_chunk_framing(bytes(R"("00000001" 0D0A FF 0D0A "00" 0D0A 0D0A)")), bytes("FF"));
}

TEST(report_reader_chunk_framing, is_recognised_by_a_size_and_a_line_end) {
    EXPECT_TRUE(has_chunk_framing(framed()));
    EXPECT_TRUE(has_chunk_framing(bytes(R"("1FF4" 0D0A)")));
    EXPECT_TRUE(has_chunk_framing(bytes(R"("abCDef09" 0D0A)")));
    EXPECT_FALSE(has_chunk_framing(bytes(R"("123456789" 0D0A)")));
    EXPECT_FALSE(has_chunk_framing(bytes(R"("12" 0D)")));
    EXPECT_FALSE(has_chunk_framing(bytes(R"("12")")));
    EXPECT_FALSE(has_chunk_framing(bytes("0D0A")));
    EXPECT_FALSE(has_chunk_framing({}));
    EXPECT_FALSE(has_chunk_framing(bytes("78DA030000000001")));
}

TEST(report_reader_chunk_framing, every_truncation_is_damage) {
    for (std::size_t size = 0; size < framed().size(); ++size) {
        SCOPED_TRACE(size);
        try {
            remove_chunk_framing(cut(framed(), size));
            ADD_FAILURE();
        } catch (const damage& error) {
            EXPECT_LE(error.offset(), size);
        }
    }
}

TEST(report_reader_chunk_framing, what_uploads_do_not_have_is_damage) {
    expect_damage(join({framed(), bytes("00")}), framed().size(), "1 bytes behind the last chunk");
    expect_damage(bytes(R"("1;a=b" 0D0A 00 0D0A "0" 0D0A 0D0A)"), 1, "no CR LF behind the size of a chunk");
    expect_damage(bytes(R"("0" 0D0A "A: b" 0D0A 0D0A)"), 3, "no CR LF behind the last chunk");
    expect_damage(bytes(R"("1" 0D0A 0000 "0" 0D0A 0D0A)"), 4, "no CR LF behind the data of a chunk");
    expect_damage(bytes(R"("FFFFFFFF" 0D0A 00)"), 0, "a chunk of 4294967295 bytes where 1 are left");
    expect_damage(bytes(R"("100000001" 0D0A 00 0D0A)"), 0,
                  "a chunk begins with its size in one to eight hexadecimal digits");
    expect_damage(bytes("0D0A"), 0, "a chunk begins with its size in one to eight hexadecimal digits");
}

} // namespace
