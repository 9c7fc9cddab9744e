// The report's parts as bytes.
#include "errorreport/report_format.h"

#include "stream/memory_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <vector>

using corvo::errorreport::report_kind;
using corvo::errorreport::write_function;
using corvo::errorreport::write_notes;
using corvo::errorreport::write_record;
using corvo::errorreport::write_record_count;
using corvo::errorreport::write_stack;
using corvo::stream::memory_file;

namespace {

using bytes = std::vector<unsigned char>;

bytes written(const std::function<void(corvo::stream::basic&)>& write) {
    memory_file out;
    write(out);
    return {out.data(), out.data() + out.size()};
}

// Fails from the first write on and counts what is asked of it.
class failing_stream : public corvo::stream::basic {
public:
    std::size_t write(const void*, std::size_t) override {
        ++writes;
        m_state = corvo::stream::state_t::fail;
        return 0;
    }
    int writes = 0;
};

TEST(report_format, header_of_a_short_report) {
    EXPECT_EQ((bytes{'T', 'Z', 'O', '1', 0x64, 0xAA}),
              written([](auto& out) { write_header(out, report_kind::brief, 0xAA64); }));
}

TEST(report_format, header_of_a_full_report) {
    EXPECT_EQ((bytes{'T', 'Z', 'R', '1', 0x64, 0x86}),
              written([](auto& out) { write_header(out, report_kind::full, 0x8664); }));
}

TEST(report_format, record_count) {
    EXPECT_EQ((bytes{4, 3, 2, 1}), written([](auto& out) { write_record_count(out, 0x01020304); }));
}

TEST(report_format, exception_record) {
    const std::uint64_t parameters[] = {1, 0x1122334455667788};
    EXPECT_EQ(
        (bytes{5, 0, 0, 0xC0, 1, 0, 0, 0, 0xF0, 0xDE, 0xBC, 0x9A, 0x78, 0x56, 0x34, 0x12, 2,    0,
               0, 0, 1, 0,    0, 0, 0, 0, 0,    0,    0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11}),
        written([&](auto& out) { write_record(out, {0xC0000005, 1, 0x123456789ABCDEF0, parameters}); }));
}

TEST(report_format, exception_record_without_parameters) {
    EXPECT_EQ((bytes{1, 0x4D, 0x54, 0xE0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}),
              written([](auto& out) { write_record(out, {0xE0544D01, 1, 0, {}}); }));
}

TEST(report_format, notes_are_units_with_their_count) {
    constexpr char16_t units[] = u"a\0\u010D"; // with the terminator
    EXPECT_EQ((bytes{'D', 'O', 'O', 'P', 4, 0, 0, 0, 'a', 0, 0, 0, 0x0D, 0x01, 0, 0}),
              written([&](auto& out) { write_notes(out, {units, 4}); }));
}

TEST(report_format, without_notes_there_is_no_notes_section) {
    EXPECT_THAT(written([](auto& out) { write_notes(out, {}); }), testing::IsEmpty());
}

TEST(report_format, notes_that_cannot_be_counted_are_refused) {
    memory_file out;
    const char16_t unit = u'x'; // never looked at
    try {
        write_notes(out, {&unit, std::size_t{0x100000000}});
        FAIL();
    } catch (const std::logic_error& error) {
        EXPECT_STREQ("collection too big", error.what());
    }
    EXPECT_EQ(0U, out.size());
}

TEST(report_format, module_of_a_short_report) {
    EXPECT_EQ((bytes{'M', 'O', 'D', '1', 3, 0, 0, 0, 'a', 0, '.', 0, 0x7E, 0x01, 0x44, 0x33, 0x22, 0x11}),
              written([](auto& out) {
                  write_module(out, report_kind::brief, {u"a.\u017E", 0x11223344, 0x55667788, 0x99});
              }));
}

TEST(report_format, module_of_a_full_report_has_checksum_and_base) {
    EXPECT_EQ((bytes{'M',  'O',  'D',  '1',  1,    0,    0,    0,    'a',  0,    0x44, 0x33, 0x22,
                     0x11, 0x88, 0x77, 0x66, 0x55, 0x00, 0x00, 0x00, 0x40, 0x01, 0,    0,    0}),
              written([](auto& out) {
                  write_module(out, report_kind::full, {u"a", 0x11223344, 0x55667788, 0x140000000});
              }));
}

TEST(report_format, function) {
    EXPECT_EQ((bytes{'F', 'U', 'N', '1', 8, 7, 6, 5, 4, 3, 2, 1}),
              written([](auto& out) { write_function(out, 0x0102030405060708); }));
}

TEST(report_format, stack_memory_is_size_address_bytes) {
    const std::byte memory[] = {std::byte{0xAB}, std::byte{0xCD}};
    EXPECT_EQ((bytes{2, 0, 0, 0, 0, 0, 0, 0, 0x10, 0x20, 0, 0, 0, 0, 0, 0, 0xAB, 0xCD}),
              written([&](auto& out) { write_stack(out, 0x2010, memory); }));
}

TEST(report_format, without_stack_memory_there_is_only_a_size_of_zero) {
    EXPECT_EQ((bytes{0, 0, 0, 0, 0, 0, 0, 0}), written([](auto& out) { write_stack(out, 0x2010, {}); }));
}

TEST(report_format, after_a_failed_write_nothing_more_is_tried) {
    failing_stream out;
    write_header(out, report_kind::full, 0xAA64);
    write_record_count(out, 1);
    write_record(out, {1, 2, 3, {}});
    write_notes(out, u"note");
    write_module(out, report_kind::full, {u"a", 1, 2, 3});
    write_function(out, 1);
    const std::byte memory[] = {std::byte{1}};
    write_stack(out, 1, memory);
    EXPECT_EQ(1, out.writes);
}

} // namespace
