#include "tools/report_reader/report.h"

#include "tests/tools/report_reader/bytes.h"
#include "tests/tools/report_reader/serialize.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>

namespace {

using namespace corvo::report_reader;
using test::byte_vector;
using test::bytes;
using test::cut;
using test::join;

// The worked example of docs/report_format.md.
byte_vector short_report() {
    return bytes(R"("TZO1" 64AA
        050000C0 00000000 491500A0F67F0000 02000000 0100000000000000 1000000000000000
        "DOOP" 05000000 0D016100 6B006100 0000
        "MOD1" 0B000000 6C0075006D0061007200690073002E00650078006500 00000000
        "FUN1" 4915000000000000
        "FUN1" 2714000000000000
        "MOD1" 09000000 6E00740064006C006C002E0064006C006C00 1D8A0166
        "FUN1" 5000000000000000)");
}

byte_vector filled(std::size_t size, unsigned first) {
    byte_vector result(size);
    for (std::size_t index = 0; index < size; ++index) {
        result[index] = static_cast<std::byte>(first + index);
    }
    return result;
}

byte_vector integer_block() {
    return filled(248, 0x00);
}
byte_vector control_block() {
    return bytes("1111111111111111 2222222222222222 3333333333333333 4444444444444444 55555555");
}
byte_vector floating_point_block() {
    return join({filled(512, 0x01), bytes("66666666 77777777")});
}
byte_vector debug_block() {
    return bytes(R"(01000000 02000000 03000000 04000000 05000000 06000000 07000000 08000000
        1100000000000000 1200000000000000 1300000000000000 1400000000000000
        1500000000000000 1600000000000000 1700000000000000 1800000000000000
        21000000 22000000 3100000000000000 3200000000000000)");
}

byte_vector full_head() {
    return bytes(R"("TZR1" 64AA 02000000
        014D54E0 01000000 8877665544332211 00000000
        43434720 81000000 0000000000000000 01000000 EFCDAB8967452301)");
}
byte_vector all_registers() {
    return join({bytes("1F004000"), integer_block(), control_block(), floating_point_block(), debug_block()});
}
byte_vector full_frames() {
    return bytes(R"("MOD1" 05000000 61002E00650078006500 11223344 55667788 0000004001000000
        "FUN1" 3412000000000000 0400000000000000 00F0FF0000000000 DEADBEEF
        "FUN1" 7856000000000000 0000000000000000
        "MOD1" 01000000 6200 00000000 00000000 0000005001000000
        "FUN1" 0100000000000000 0000000000000000)");
}
byte_vector full_report() {
    return join({full_head(), all_registers(), bytes(R"("DOOP" 03000000 6100 0000 0000)"), full_frames()});
}

byte_vector x86_64_report() {
    return join({bytes(R"("TZR1" 6486 01000000 030000 80 00000000 0000000000000000 00000000 00000000)"),
                 full_frames()});
}

// What is wrong, and where; "" for nothing.
struct verdict {
    std::size_t offset = 0;
    std::string text;
};

verdict verdict_on(const byte_vector& report) {
    try {
        parse_report(report);
        return {};
    } catch (const damage& error) {
        EXPECT_EQ(error.where(), damaged_bytes::report);
        EXPECT_LE(error.offset(), report.size());
        const std::string text = error.what();
        const std::string begin = "damaged at byte " + std::to_string(error.offset()) + " (0x";
        EXPECT_TRUE(text.starts_with(begin)) << text;
        return {error.offset(), text.substr(std::min(text.size(), text.find("report: ") + 8))};
    }
}

void expect_damage(const byte_vector& report, std::size_t offset, const std::string& text) {
    const verdict found = verdict_on(report);
    EXPECT_EQ(found.text, text);
    EXPECT_EQ(found.offset, offset);
}

byte_vector with(byte_vector report, std::size_t offset, std::string_view written) {
    const byte_vector replacement = bytes(written);
    std::copy(replacement.begin(), replacement.end(), report.begin() + static_cast<std::ptrdiff_t>(offset));
    return report;
}

// Every report that is cut short is damaged, but for those that end between two frames, or before the first one.
void expect_valid_cuts(const byte_vector& whole, const std::set<std::size_t>& valid) {
    std::set<std::size_t> found;
    for (std::size_t size = 0; size <= whole.size(); ++size) {
        if (verdict_on(cut(whole, size)).text.empty()) {
            found.insert(size);
        }
    }
    EXPECT_EQ(found, valid);
}

TEST(report_reader_report, reads_a_short_report) {
    const report read = parse_report(short_report());
    EXPECT_EQ(read.kind, report_kind::brief);
    EXPECT_EQ(read.machine, machine_type::arm64);
    ASSERT_EQ(read.records.size(), 1u);
    EXPECT_EQ(read.records[0].code, 0xC0000005u);
    EXPECT_EQ(read.records[0].flags, 0u);
    EXPECT_EQ(read.records[0].address, 0x00007FF6A0001549u);
    EXPECT_EQ(read.records[0].parameters, (std::vector<std::uint64_t>{1, 16}));
    EXPECT_FALSE(read.context.has_value());
    ASSERT_TRUE(read.notes.has_value());
    EXPECT_EQ(*read.notes, std::vector<std::u16string>{u"\u010Daka"});
    ASSERT_EQ(read.modules.size(), 2u);
    EXPECT_EQ(read.modules[0].name, u"lumaris.exe");
    EXPECT_EQ(read.modules[0].time_stamp, 0u);
    EXPECT_FALSE(read.modules[0].checksum.has_value());
    EXPECT_FALSE(read.modules[0].base.has_value());
    EXPECT_EQ(read.modules[1].name, u"ntdll.dll");
    EXPECT_EQ(read.modules[1].time_stamp, 0x66018A1Du);
    ASSERT_EQ(read.frames.size(), 3u);
    EXPECT_EQ(read.frames[0].module, 0u);
    EXPECT_EQ(read.frames[0].offset, 0x1549u);
    EXPECT_FALSE(read.frames[0].stack.has_value());
    EXPECT_EQ(read.frames[1].module, 0u);
    EXPECT_EQ(read.frames[1].offset, 0x1427u);
    EXPECT_EQ(read.frames[2].module, 1u);
    EXPECT_EQ(read.frames[2].offset, 0x50u);
}

TEST(report_reader_report, reads_a_full_report) {
    const report read = parse_report(full_report());
    EXPECT_EQ(read.kind, report_kind::full);
    EXPECT_EQ(read.machine, machine_type::arm64);
    ASSERT_EQ(read.records.size(), 2u);
    EXPECT_EQ(read.records[0].code, 0xE0544D01u);
    EXPECT_EQ(read.records[0].flags, 1u);
    EXPECT_EQ(read.records[0].address, 0x1122334455667788u);
    EXPECT_TRUE(read.records[0].parameters.empty());
    EXPECT_EQ(read.records[1].code, 0x20474343u);
    EXPECT_EQ(read.records[1].parameters, std::vector<std::uint64_t>{0x0123456789ABCDEF});
    EXPECT_EQ(*read.notes, (std::vector<std::u16string>{u"a", u""}));
    ASSERT_EQ(read.modules.size(), 2u);
    EXPECT_EQ(read.modules[0].name, u"a.exe");
    EXPECT_EQ(read.modules[0].time_stamp, 0x44332211u);
    EXPECT_EQ(read.modules[0].checksum, 0x88776655u);
    EXPECT_EQ(read.modules[0].base, 0x140000000u);
    ASSERT_EQ(read.frames.size(), 3u);
    EXPECT_EQ(read.frames[0].offset, 0x1234u);
    ASSERT_TRUE(read.frames[0].stack.has_value());
    EXPECT_EQ(read.frames[0].stack->address, 0xFFF000u);
    EXPECT_EQ(read.frames[0].stack->bytes, bytes("DEADBEEF"));
    EXPECT_EQ(read.frames[1].module, 0u);
    EXPECT_FALSE(read.frames[1].stack.has_value());
    EXPECT_EQ(read.frames[2].module, 1u);
}

TEST(report_reader_report, reads_every_register) {
    const report read = parse_report(full_report());
    ASSERT_TRUE(read.context.has_value());
    const processor_context& context = *read.context;
    EXPECT_EQ(context.flags, 0x0040001Fu);
    ASSERT_TRUE(context.integer && context.control && context.floating_point && context.debug);
    EXPECT_EQ(context.integer->x[0], 0x0706050403020100u);
    EXPECT_EQ(context.integer->x[28], 0xE7E6E5E4E3E2E1E0u);
    EXPECT_EQ(context.integer->fp, 0xEFEEEDECEBEAE9E8u);
    EXPECT_EQ(context.integer->lr, 0xF7F6F5F4F3F2F1F0u);
    EXPECT_EQ(context.control->fp, 0x1111111111111111u);
    EXPECT_EQ(context.control->lr, 0x2222222222222222u);
    EXPECT_EQ(context.control->sp, 0x3333333333333333u);
    EXPECT_EQ(context.control->pc, 0x4444444444444444u);
    EXPECT_EQ(context.control->cpsr, 0x55555555u);
    EXPECT_EQ(context.floating_point->v[0].low, 0x0807060504030201u);
    EXPECT_EQ(context.floating_point->v[0].high, 0x100F0E0D0C0B0A09u);
    EXPECT_EQ(context.floating_point->v[31].high, 0x00FFFEFDFCFBFAF9u);
    EXPECT_EQ(context.floating_point->fpcr, 0x66666666u);
    EXPECT_EQ(context.floating_point->fpsr, 0x77777777u);
    EXPECT_EQ(context.debug->bcr, (std::array<std::uint32_t, 8>{1, 2, 3, 4, 5, 6, 7, 8}));
    EXPECT_EQ(context.debug->bvr,
              (std::array<std::uint64_t, 8>{0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17, 0x18}));
    EXPECT_EQ(context.debug->wcr, (std::array<std::uint32_t, 2>{0x21, 0x22}));
    EXPECT_EQ(context.debug->wvr, (std::array<std::uint64_t, 2>{0x31, 0x32}));
}

TEST(report_reader_report, reads_a_full_report_of_the_x86_64_build) {
    const report read = parse_report(x86_64_report());
    EXPECT_EQ(read.machine, machine_type::x86_64);
    EXPECT_EQ(read.records[0].code, 0x80000003u);
    ASSERT_TRUE(read.context.has_value());
    EXPECT_EQ(read.context->flags, 0u);
    EXPECT_FALSE(read.context->integer || read.context->control || read.context->floating_point ||
                 read.context->debug);
    EXPECT_FALSE(read.notes.has_value());
    EXPECT_EQ(read.frames.size(), 3u);
}

TEST(report_reader_report, reads_a_short_report_of_the_x86_64_build) {
    const report read = parse_report(with(short_report(), 4, "6486"));
    EXPECT_EQ(read.machine, machine_type::x86_64);
    EXPECT_EQ(read.frames.size(), 3u);
}

// Whoever asks for all bits of a block's value would read the control block alone of 0x1, and nothing at all of
// 0x400000.
TEST(report_reader_report, any_bit_of_a_blocks_value_asks_for_the_block) {
    struct {
        const char* flags;
        bool integer, control, floating_point, debug;
    } const cases[]{
        {"00000000", false, false, false, false}, {"01000000", false, true, false, false},
        {"02000000", true, false, false, false},  {"04000000", false, false, true, false},
        {"08000000", false, false, false, true},  {"0F000000", true, true, true, true},
        {"10000000", false, false, false, false}, {"00004000", true, true, true, true},
        {"01004000", true, true, true, true},     {"00000080", false, false, false, false},
    };
    for (const auto& one : cases) {
        SCOPED_TRACE(one.flags);
        const byte_vector whole =
            join({full_head(), bytes(one.flags), one.integer ? integer_block() : byte_vector(),
                  one.control ? control_block() : byte_vector(),
                  one.floating_point ? floating_point_block() : byte_vector(),
                  one.debug ? debug_block() : byte_vector(), full_frames()});
        const report read = parse_report(whole);
        EXPECT_EQ(read.context->integer.has_value(), one.integer);
        EXPECT_EQ(read.context->control.has_value(), one.control);
        EXPECT_EQ(read.context->floating_point.has_value(), one.floating_point);
        EXPECT_EQ(read.context->debug.has_value(), one.debug);
        EXPECT_EQ(test::report_bytes(read).get(), whole);
    }
}

TEST(report_reader_report, is_put_together_again_to_the_same_bytes) {
    for (const byte_vector& whole :
         {short_report(), full_report(), x86_64_report(), with(short_report(), 4, "6486")}) {
        EXPECT_EQ(test::report_bytes(parse_report(whole)).get(), whole);
    }
}

TEST(report_reader_report, a_short_report_may_end_ahead_of_the_notes_and_between_frames_alone) {
    ASSERT_EQ(short_report().size(), 160u);
    expect_valid_cuts(short_report(), {42, 60, 106, 118, 160});
}

TEST(report_reader_report, a_full_report_may_end_ahead_of_the_notes_and_between_frames_alone) {
    ASSERT_EQ(full_report().size(), 1132u);
    expect_valid_cuts(full_report(), {986, 1000, 1066, 1086, 1132});
}

TEST(report_reader_report, a_full_report_of_the_x86_64_build_may_end_between_frames_alone) {
    ASSERT_EQ(x86_64_report().size(), 166u);
    expect_valid_cuts(x86_64_report(), {34, 100, 120, 166});
}

TEST(report_reader_report, without_frames_it_is_whole) {
    const report read = parse_report(cut(short_report(), 42));
    EXPECT_TRUE(read.frames.empty());
    EXPECT_TRUE(read.modules.empty());
    EXPECT_FALSE(read.notes.has_value());
}

TEST(report_reader_report, the_offset_of_a_truncation_is_where_the_part_begins_that_is_cut) {
    expect_damage({}, 0, "the report ends inside the magic: 4 bytes are wanted, 0 are left");
    expect_damage(cut(short_report(), 3), 0,
                  "the report ends inside the magic: 4 bytes are wanted, 3 are left");
    expect_damage(cut(short_report(), 5), 4,
                  "the report ends inside the machine type: 2 bytes are wanted, 1 are left");
    expect_damage(cut(short_report(), 21), 14,
                  "the report ends inside the exception address: 8 bytes are wanted, 7 are left");
    expect_damage(cut(short_report(), 41), 22,
                  "the number of exception parameters is 2, for which the 15 bytes left are too few");
    expect_damage(cut(short_report(), 101), 98,
                  "the report ends inside a frame's offset: 8 bytes are wanted, 3 are left");
    expect_damage(cut(full_report(), 100), 94,
                  "the report ends inside the integer registers: 8 bytes are wanted, 6 are left");
}

TEST(report_reader_report, other_magics_are_no_report) {
    const std::string text = R"(it begins with neither "TZO1" nor "TZR1": this is not a report)";
    for (const char* magic : {"\"TZO2\"", "\"TZR0\"", "\"tzo1\"", "\"MOD1\"", "00000000"}) {
        SCOPED_TRACE(magic);
        expect_damage(with(short_report(), 0, magic), 0, text);
    }
}

// A short report has no number of records, a full one no frames without stack blocks: with the other's magic neither
// can be read.
TEST(report_reader_report, the_magic_of_the_other_kind_does_not_do) {
    EXPECT_NE(verdict_on(with(short_report(), 0, "\"TZR1\"")).text, "");
    EXPECT_NE(verdict_on(with(full_report(), 0, "\"TZO1\"")).text, "");
}

TEST(report_reader_report, other_machines_are_refused) {
    expect_damage(with(short_report(), 4, "4C01"), 4,
                  "machine type 0x014C is neither ARM64 (0xAA64) nor x86-64 (0x8664)");
    expect_damage(with(short_report(), 4, "AA64"), 4,
                  "machine type 0x64AA is neither ARM64 (0xAA64) nor x86-64 (0x8664)");
}

TEST(report_reader_report, an_x86_64_report_has_no_processor_context) {
    expect_damage(with(x86_64_report(), 30, "0F001000"), 30,
                  "an x86-64 report with context flags, which only a report of ARM64 has");
}

TEST(report_reader_report, numbers_of_records_beyond_the_report_are_refused) {
    expect_damage(with(full_report(), 6, "FFFFFFFF"), 6,
                  "the number of exception records is 4294967295, for which the 1122 bytes left are too few");
    // 57 records of 20 bytes would be 1140.
    expect_damage(with(full_report(), 6, "39000000"), 6,
                  "the number of exception records is 57, for which the 1122 bytes left are too few");
    expect_damage(with(full_report(), 6, "00000000"), 6, "a report without an exception record");
}

// Times 8 it is 0 in 32 bits.
TEST(report_reader_report, numbers_of_parameters_that_overflow_are_refused) {
    expect_damage(
        with(short_report(), 22, "00000020"), 22,
        "the number of exception parameters is 536870912, for which the 134 bytes left are too few");
    expect_damage(
        with(short_report(), 22, "FFFFFFFF"), 22,
        "the number of exception parameters is 4294967295, for which the 134 bytes left are too few");
}

TEST(report_reader_report, numbers_of_note_units_that_overflow_are_refused) {
    // Times 2 they are 0 and 10 in 32 bits.
    expect_damage(with(short_report(), 46, "00000080"), 46,
                  "the number of note units is 2147483648, for which the 110 bytes left are too few");
    expect_damage(with(short_report(), 46, "05000080"), 46,
                  "the number of note units is 2147483653, for which the 110 bytes left are too few");
}

TEST(report_reader_report, lengths_of_names_that_overflow_are_refused) {
    expect_damage(with(short_report(), 64, "0B000080"), 64,
                  "the length of a module's name is 2147483659, for which the 92 bytes left are too few");
}

TEST(report_reader_report, sizes_of_stack_memory_that_overflow_are_refused) {
    expect_damage(with(full_report(), 1046, "FFFFFFFFFFFFFFFF"), 1046,
                  "the size of a frame's stack memory is 18446744073709551615 where 70 bytes are left");
    expect_damage(with(full_report(), 1046, "4700000000000000"), 1046,
                  "the size of a frame's stack memory is 71 where 70 bytes are left");
}

TEST(report_reader_report, a_notes_section_holds_a_note) {
    expect_damage(join({cut(short_report(), 42), bytes(R"("DOOP" 00000000)")}), 46,
                  "a notes section without a note");
}

TEST(report_reader_report, every_note_ends_with_a_zero_unit) {
    expect_damage(with(short_report(), 58, "6100"), 58, "the last note has no terminating zero unit");
    EXPECT_EQ(*parse_report(with(short_report(), 52, "0000")).notes,
              (std::vector<std::u16string>{u"\u010D", u"ka"}));
    EXPECT_EQ(*parse_report(with(short_report(), 50, "0000 0000 0000 0000 0000")).notes,
              std::vector<std::u16string>(5));
}

TEST(report_reader_report, notes_come_once_and_ahead_of_the_frames) {
    const byte_vector notes = bytes(R"("DOOP" 01000000 0000)");
    expect_damage(join({cut(short_report(), 42), notes, notes}), 52,
                  R"(neither "DOOP", "MOD1" nor the end of the report)");
    expect_damage(join({short_report(), notes}), 160, R"(neither "MOD1", "FUN1" nor the end of the report)");
}

TEST(report_reader_report, a_frame_lies_in_a_module) {
    expect_damage(join({cut(short_report(), 42), bytes(R"("FUN1" 0000000000000000)")}), 42,
                  "a frame ahead of all modules");
}

TEST(report_reader_report, a_module_has_a_frame) {
    const byte_vector module = bytes(R"("MOD1" 00000000 00000000)");
    expect_damage(join({short_report(), module, module, bytes(R"("FUN1" 0000000000000000)")}), 160,
                  "a module without a frame");
    expect_damage(join({short_report(), module}), 160,
                  "the report ends behind a module, without a frame in it");
    expect_damage(cut(short_report(), 94), 60, "the report ends behind a module, without a frame in it");
}

TEST(report_reader_report, frames_of_one_module_share_its_block) {
    expect_damage(with(full_report(), 1104, "0000004001000000"), 1086,
                  "a module block for the module that the frame before lies in, too");
}

TEST(report_reader_report, a_module_may_come_again_behind_another_one) {
    const byte_vector again = join({full_report(), full_frames()});
    const report read = parse_report(again);
    EXPECT_EQ(read.modules.size(), 4u);
    EXPECT_EQ(read.frames.size(), 6u);
    EXPECT_EQ(test::report_bytes(read).get(), again);
}

TEST(report_reader_report, what_stands_behind_the_last_frame_is_looked_at) {
    expect_damage(join({short_report(), bytes("00")}), 160,
                  R"(neither "MOD1", "FUN1" nor the end of the report)");
    expect_damage(join({full_report(), bytes("\"FUN\"")}), 1132,
                  R"(neither "MOD1", "FUN1" nor the end of the report)");
}

// A stack block of a full report may hold what looks like the next frame.
TEST(report_reader_report, stack_memory_is_not_taken_for_frames) {
    const byte_vector report_bytes = with(full_report(), 1062, "\"MOD1\"");
    EXPECT_EQ(parse_report(report_bytes).frames.size(), 3u);
    EXPECT_EQ(parse_report(report_bytes).frames[0].stack->bytes, bytes("\"MOD1\""));
}

} // namespace
