#include "tools/report_reader/print.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <string>

namespace {

using namespace corvo::report_reader;

report short_report() {
    return {report_kind::brief,
            machine_type::arm64,
            {{0xC0000005, 1, 0x00007FF6A0001549, {1, 16}}},
            std::nullopt,
            std::vector<std::u16string>{u"a\u001B[2J"},
            {{u"lumaris.exe", 7, std::nullopt, std::nullopt}},
            {{0, 0x1549, std::nullopt}, {0, 0x1427, std::nullopt}}};
}

report full_report() {
    processor_context context{};
    context.flags = 0x400001;
    context.control = control_registers{1, 2, 3, 0xFFFFFFFFFFFFFFFF, 5};
    return {report_kind::full,
            machine_type::arm64,
            {{0xE0544D02, 0, 1, {}}},
            context,
            std::nullopt,
            {{u"lumaris.exe", 7, 8, 0x140000000}},
            {{0, 0x1549, stack_block{0x1000, {std::byte{0xDE}, std::byte{0xAD}}}}}};
}

TEST(report_reader_print, a_short_report_as_text) {
    const frame_places places{{}, {{"leaf", 0, "leaf.h:3"}, {"wWinMain", 7, "main.cpp:15"}}};
    EXPECT_EQ(to_text(short_report(), places),
              "short report, ARM64\n"
              "exception 0xC0000005 (access violation) writing to 0x0000000000000010\n"
              "  at 0x00007FF6A0001549, flags 0x00000001 (noncontinuable)\n"
              "  parameter 0: 0x0000000000000001\n"
              "  parameter 1: 0x0000000000000010\n"
              "notes, oldest first\n"
              "  a\\x1B[2J\n"
              "frames, from the fault outward\n"
              "   0  lumaris.exe+0x1549 (time stamp 0x00000007)\n"
              "   1  lumaris.exe+0x1427 (time stamp 0x00000007)\n"
              "      leaf at leaf.h:3, inlined into\n"
              "      wWinMain+0x7 at main.cpp:15\n");
}

TEST(report_reader_print, a_full_report_as_text) {
    EXPECT_EQ(
        to_text(full_report(), {{}}),
        "full report, ARM64\n"
        "exception 0xE0544D02 (abort called)\n"
        "  at 0x0000000000000001, flags 0x00000000\n"
        "processor context, flags 0x00400001\n"
        "  Fp   0x0000000000000001  Lr   0x0000000000000002  Sp   0x0000000000000003  Pc   "
        "0xFFFFFFFFFFFFFFFF\n"
        "  Cpsr 0x00000005\n"
        "frames, from the fault outward\n"
        "   0  lumaris.exe+0x1549 (time stamp 0x00000007, checksum 0x00000008, base 0x0000000140000000)\n"
        "      stack memory: 2 bytes from 0x0000000000001000\n");
}

TEST(report_reader_print, the_registers_of_text_are_all_of_them) {
    report what = full_report();
    processor_context context{};
    context.flags = 0x40000F;
    context.integer.emplace();
    std::string expected = "processor context, flags 0x0040000F\n";
    const auto line = [&](const char* format, auto... values) {
        std::array<char, 200> buffer{};
        ASSERT_GT(std::snprintf(buffer.data(), buffer.size(), format, values...), 0);
        expected += buffer.data();
    };
    for (unsigned int at = 0; at < 29; ++at) {
        context.integer->x[at] = 0x8000000000000000 + at;
        line(at < 10 ? "  X%u   0x80000000000000%02X" : "  X%u  0x80000000000000%02X", at, at);
        expected += at % 4 == 3 || at == 28 ? "\n" : "";
    }
    context.integer->fp = 0x91;
    context.integer->lr = 0x92;
    expected += "  Fp   0x0000000000000091  Lr   0x0000000000000092\n";
    context.floating_point.emplace();
    for (unsigned int at = 0; at < 32; ++at) {
        context.floating_point->v[at] = {at, 0x8000000000000000 + at};
        line(at < 10 ? "  V%u   0x80000000000000%02X00000000000000%02X"
                     : "  V%u  0x80000000000000%02X00000000000000%02X",
             at, at, at);
        expected += at % 2 == 1 ? "\n" : "";
    }
    context.floating_point->fpcr = 0x93;
    context.floating_point->fpsr = 0x80000094;
    expected += "  Fpcr 0x00000093  Fpsr 0x80000094\n";
    context.debug = debug_registers{
        {1, 2, 3, 4, 5, 6, 7, 0x80000008}, {11, 12, 13, 14, 15, 16, 17, 18}, {21, 22}, {31, 32}};
    expected += "  Bcr0 0x00000001  Bcr1 0x00000002  Bcr2 0x00000003  Bcr3 0x00000004\n"
                "  Bcr4 0x00000005  Bcr5 0x00000006  Bcr6 0x00000007  Bcr7 0x80000008\n"
                "  Bvr0 0x000000000000000B  Bvr1 0x000000000000000C  Bvr2 0x000000000000000D  Bvr3 "
                "0x000000000000000E\n"
                "  Bvr4 0x000000000000000F  Bvr5 0x0000000000000010  Bvr6 0x0000000000000011  Bvr7 "
                "0x0000000000000012\n"
                "  Wcr0 0x00000015  Wcr1 0x00000016\n"
                "  Wvr0 0x000000000000001F  Wvr1 0x0000000000000020\n";
    what.context = context;
    const std::string text = to_text(what, {{}});
    const std::size_t begin = text.find("processor context");
    ASSERT_NE(std::string::npos, begin);
    EXPECT_EQ(expected, text.substr(begin, text.find("frames, from") - begin));
}

TEST(report_reader_print, a_report_without_frames_says_so) {
    report what = short_report();
    what.frames.clear();
    EXPECT_TRUE(to_text(what, {}).ends_with("no frames: the stack could not be walked\n"));
}

TEST(report_reader_print, a_long_name_is_shown_whole) {
    report what = short_report();
    what.modules[0].name = std::u16string(1000, u'x');
    EXPECT_NE(to_text(what, frame_places(2)).find(std::string(1000, 'x') + "+0x1549 (time"),
              std::string::npos);
}

TEST(report_reader_print, a_short_report_as_json) {
    const frame_places places{{}, {{"leaf", 0, "leaf.h:3"}, {"wWinMain", 7, "main.cpp:15"}}};
    EXPECT_EQ(
        to_json("0.tzo", short_report(), places),
        R"({"file":"0.tzo","kind":"short","machine":"arm64",)"
        R"("records":[{"code":3221225477,"flags":1,"address":140697223042377,"parameters":[1,16]}],)"
        R"("context":null,"notes":["a\u001b[2J"],"frames":[)"
        R"({"module":"lumaris.exe","time_stamp":7,"checksum":null,"base":null,"offset":5449,"stack":null},)"
        R"({"module":"lumaris.exe","time_stamp":7,"checksum":null,"base":null,"offset":5159,"stack":null,)"
        R"("function_offset":7,"functions":[{"name":"leaf","source":"leaf.h:3"},{"name":"wWinMain","source":"main.cpp:15"}]}]})");
}

TEST(report_reader_print, a_full_report_as_json) {
    EXPECT_EQ(
        to_json("0.tzr", full_report(), {{{"run", 1, ""}}}),
        R"({"file":"0.tzr","kind":"full","machine":"arm64",)"
        R"("records":[{"code":3763621122,"flags":0,"address":1,"parameters":[]}],)"
        R"("context":{"flags":4194305,"integer":null,)"
        R"("control":{"fp":1,"lr":2,"sp":3,"pc":18446744073709551615,"cpsr":5},)"
        R"("floating_point":null,"debug":null},"notes":null,"frames":[)"
        R"({"module":"lumaris.exe","time_stamp":7,"checksum":8,"base":5368709120,"offset":5449,)"
        R"("stack":{"address":4096,"bytes":"dead"},"function_offset":1,"functions":[{"name":"run","source":null}]}]})");
}

TEST(report_reader_print, the_registers_of_json_are_all_of_them) {
    report what = full_report();
    what.machine = machine_type::x86_64;
    processor_context& context = *what.context;
    context.integer = integer_registers{};
    context.integer->x[28] = 28;
    context.floating_point = floating_point_registers{};
    context.floating_point->v[31] = {31, 32};
    context.debug = debug_registers{{1}, {2}, {3}, {4, 5}};
    const std::string text = to_json("0.tzr", what, {{}});
    for (const char* part :
         {R"("machine":"x86-64")", R"("integer":{"x":[0,0,)", R"(0,28],"fp":0,"lr":0})",
          R"({"low":31,"high":32}],"fpcr":0,"fpsr":0})",
          R"("debug":{"bcr":[1,0,0,0,0,0,0,0],"bvr":[2,0,0,0,0,0,0,0],"wcr":[3,0],"wvr":[4,5]})"}) {
        EXPECT_NE(text.find(part), std::string::npos) << part << "\n" << text;
    }
}

TEST(report_reader_print, a_file_name_that_is_no_utf_8_is_json_all_the_same) {
    EXPECT_TRUE(to_json("\xFF", short_report(), frame_places(2)).starts_with("{\"file\":\"\uFFFD\""));
}

} // namespace
