#include "tools/reports/grouping.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace corvo::reports;
using corvo::report_reader::code_chain;
using corvo::report_reader::machine_type;
using corvo::report_reader::report;
using corvo::report_reader::report_kind;

struct shown_frame {
    const char16_t* module;
    std::uint64_t offset;
    code_chain chain;
};

crash described(std::uint32_t code, const std::vector<shown_frame>& frames, std::uint32_t stamp = 1) {
    report what{
        report_kind::brief, machine_type::arm64, {{code, 0, 0, {}}}, std::nullopt, std::nullopt, {}, {}};
    std::vector<code_chain> chains;
    for (const shown_frame& each : frames) {
        what.modules.push_back({each.module, stamp, std::nullopt, std::nullopt});
        what.frames.push_back({what.modules.size() - 1, each.offset, std::nullopt});
        chains.push_back(each.chain);
    }
    return describe(what, chains);
}

code_chain in(const std::string& function, const std::string& source = {}) {
    return {{function, 0, source}};
}

TEST(reports_grouping, is_by_code_and_the_first_three_functions) {
    const crash what = described(0xC0000005, {{u"a.exe", 1, in("one", "one.cpp:7")},
                                              {u"a.exe", 2, in("two")},
                                              {u"a.exe", 3, in("three")},
                                              {u"a.exe", 4, in("four")}});
    EXPECT_EQ(what.signature, "0xC0000005 in a.exe\none\ntwo\nthree");
    EXPECT_EQ(what.title, "access violation in one");
    EXPECT_EQ(what.place, "one.cpp:7");
    EXPECT_FALSE(what.is_unnamed);
}

TEST(reports_grouping, offsets_and_builds_do_not_count_where_functions_are_known) {
    const crash one = described(5, {{u"a.exe", 1, in("f")}, {u"a.exe", 2, in("g")}}, 1);
    const crash other = described(5, {{u"a.exe", 11, in("f")}, {u"a.exe", 12, in("g")}}, 2);
    EXPECT_EQ(one.signature, other.signature);
    EXPECT_NE(one.signature, described(5, {{u"b.exe", 1, in("f")}, {u"b.exe", 2, in("g")}}).signature);
    EXPECT_NE(one.signature, described(6, {{u"a.exe", 1, in("f")}, {u"a.exe", 2, in("g")}}).signature);
}

TEST(reports_grouping, what_only_passes_a_failure_on_is_passed_over) {
    const crash what = described(
        0xE0544D01, {{u"kernelbase.dll", 1, {}},
                     {u"a.exe", 2, in("corvo::errorreport::(anonymous namespace)::raise(unsigned long)")},
                     {u"a.exe", 3, in("std::__terminate(void (*)())")},
                     {u"a.exe", 4, in("__cxa_throw")},
                     {u"a.exe", 5, in("culprit()")}});
    EXPECT_EQ(what.signature, "0xE0544D01 in a.exe\nculprit()");
    EXPECT_EQ(what.title, "terminate called in culprit()");
}

TEST(reports_grouping, functions_that_were_put_into_others_count) {
    const crash what =
        described(5, {{u"a.exe", 1, {{"leaf", 0, "leaf.h:1"}, {"branch", 0, ""}, {"trunk()", 4, ""}}},
                      {u"a.exe", 2, in("root")}});
    EXPECT_EQ(what.signature, "0x00000005 in a.exe\nleaf\nbranch\ntrunk()");
    EXPECT_EQ(what.place, "leaf.h:1");
}

TEST(reports_grouping, without_symbols_it_is_by_module_build_and_offset) {
    const crash what = described(0xC0000005, {{u"ntdll.dll", 1, {}}, {u"a.exe", 0x1549, {}}}, 7);
    EXPECT_EQ(what.signature, "0xC0000005 in a.exe\na.exe+0x1549 of build 0x00000007");
    EXPECT_TRUE(what.is_unnamed);
    EXPECT_EQ(what.program, "a.exe");
    EXPECT_EQ(what.stamp, 7U);
}

TEST(reports_grouping, names_longer_than_any_of_ours_are_cut_and_still_tell_crashes_apart) {
    const std::u16string name = std::u16string(3000, u'\u0161') + u".exe";
    const std::string function(5000, 'f');
    const crash what = described(5, {{name.c_str(), 1, in(function + '1')}});
    const crash other = described(5, {{name.c_str(), 1, in(function + '2')}});
    // An index of PostgreSQL takes 2704 bytes.
    EXPECT_LT(what.signature.size(), 2000U);
    EXPECT_NE(what.signature, other.signature);
    EXPECT_EQ(what.signature, described(5, {{name.c_str(), 9, in(function + '1')}}, 2).signature);
    EXPECT_EQ(what.title.size(), 500U);
    // No character is cut in two.
    EXPECT_EQ(what.program.size(), 254U);
    EXPECT_TRUE(what.program.ends_with("\u0161"));
}

TEST(reports_grouping, libraries_of_others_are_not_our_own) {
    const crash what = described(5, {{u"watcher.dll", 1, {}}, {u"a.exe", 2, in("f")}});
    EXPECT_EQ(what.signature, "0x00000005 in a.exe\nf");
    // They may turn out to be ours.
    EXPECT_TRUE(what.is_unnamed);
}

TEST(reports_grouping, without_anything_of_our_own_it_is_by_the_modules) {
    const crash what =
        described(0xC0000374, {{u"NTDLL.dll", 1, {}}, {u"ntdll.dll", 2, {}}, {u"ucrtbase.dll", 3, {}}});
    EXPECT_EQ(what.signature, "0xC0000374\nntdll.dll\nucrtbase.dll");
    EXPECT_EQ(what.title, "heap corruption in ntdll.dll, ucrtbase.dll");
    EXPECT_FALSE(what.is_unnamed);
}

TEST(reports_grouping, a_report_without_frames_is_of_its_code) {
    const crash what = described(0x12345678, {});
    EXPECT_EQ(what.signature, "0x12345678");
    EXPECT_EQ(what.title, "exception 0x12345678");
}

TEST(reports_grouping, a_function_of_a_similar_name_passes_nothing_on) {
    EXPECT_TRUE(only_passes_on("abort"));
    EXPECT_TRUE(only_passes_on("raise(int)"));
    EXPECT_TRUE(only_passes_on("std::terminate()"));
    EXPECT_FALSE(only_passes_on("abort_download()"));
    EXPECT_FALSE(only_passes_on("corvo::raise_flag()"));
    EXPECT_FALSE(only_passes_on("(anonymous namespace)::innermost"));
    EXPECT_FALSE(only_passes_on(""));
}

} // namespace
