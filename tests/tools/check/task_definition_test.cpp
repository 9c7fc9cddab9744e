#include "tools/check/task_definition.h"

#include <gtest/gtest.h>

#include <windows.h>

#include <string>

namespace {

using check::looked_for;
using check::read_definition;

std::wstring
task(const std::wstring& command, const std::wstring& settings = L"",
     const std::wstring& triggers = L"<CalendarTrigger><Enabled>true</Enabled></CalendarTrigger>") {
    return L"<?xml version=\"1.0\" encoding=\"UTF-16\"?>\r\n"
           L"<Task version=\"1.4\" xmlns=\"http://schemas.microsoft.com/windows/2004/02/mit/task\">\r\n"
           L"  <RegistrationInfo><Description>&lt;Command&gt;not this "
           L"one</Description></RegistrationInfo>\r\n"
           L"  <Triggers>" +
           triggers + L"</Triggers>\r\n  <Settings>" + settings +
           L"</Settings>\r\n  <Actions Context=\"Author\">\r\n    <Exec>\r\n      " + command +
           L"\r\n    </Exec>\r\n  </Actions>\r\n</Task>";
}

TEST(task_definition, has_the_command_and_its_arguments) {
    const auto found = read_definition(task(L"<Command>C:\\lumaris.exe</Command><Arguments>-sl</Arguments>"));
    ASSERT_TRUE(found);
    EXPECT_EQ(found->command, L"C:\\lumaris.exe");
    EXPECT_EQ(found->arguments, L"-sl");
}

TEST(task_definition, has_characters_and_not_their_entities) {
    const auto found = read_definition(
        task(L"<Command>&quot;C:\\R&amp;D\\&#x160;&#353;\\&lt;a&gt;&apos;.exe&quot;</Command>"));
    ASSERT_TRUE(found);
    EXPECT_EQ(found->command, L"\"C:\\R&D\\\x160\x161\\<a>'.exe\"");
}

TEST(task_definition, has_what_stands_around_comments_and_in_character_data) {
    const auto found = read_definition(
        task(L"<!-- <Command>old.exe</Command> --><Command>C:\\a<!-- b -->c<![CDATA[&d]]>.exe</Command>"));
    ASSERT_TRUE(found);
    EXPECT_EQ(found->command, L"C:\\ac&d.exe");
}

TEST(task_definition, takes_the_first_of_several_programs) {
    const auto found = read_definition(task(
        L"<Command>first.exe</Command></Exec><Exec><Command>second.exe</Command><Arguments>x</Arguments>"));
    ASSERT_TRUE(found);
    EXPECT_EQ(found->command, L"first.exe");
}

TEST(task_definition, may_start_no_program) {
    const auto found = read_definition(task(L"<Command/>"));
    ASSERT_TRUE(found);
    EXPECT_EQ(found->command, L"");
}

TEST(task_definition, starts_on_battery_only_when_it_says_so) {
    EXPECT_FALSE(read_definition(task(L"<Command>a</Command>"))->starts_on_battery);
    for (const wchar_t* text : {L"false", L"0"}) {
        EXPECT_TRUE(read_definition(task(L"<Command>a</Command>", L"<DisallowStartIfOnBatteries>" +
                                                                      std::wstring(text) +
                                                                      L"</DisallowStartIfOnBatteries>"))
                        ->starts_on_battery);
    }
    EXPECT_FALSE(read_definition(task(L"<Command>a</Command>",
                                      L"<DisallowStartIfOnBatteries>true</DisallowStartIfOnBatteries>"))
                     ->starts_on_battery);
}

TEST(task_definition, knows_triggers_for_which_no_time_is_planned) {
    EXPECT_FALSE(read_definition(task(L"<Command>a</Command>"))->starts_at_events);
    EXPECT_FALSE(read_definition(task(L"<Command>a</Command>", L"", L"<TimeTrigger/>"))->starts_at_events);
    EXPECT_FALSE(read_definition(task(L"<Command>a</Command>", L"", L""))->starts_at_events);
    EXPECT_TRUE(read_definition(task(L"<Command>a</Command>", L"", L"<BootTrigger/>"))->starts_at_events);
    EXPECT_TRUE(read_definition(task(L"<Command>a</Command>", L"",
                                     L"<TimeTrigger/><LogonTrigger><Enabled>true</Enabled></LogonTrigger>"))
                    ->starts_at_events);
}

TEST(task_definition, must_be_xml) {
    EXPECT_FALSE(read_definition(L""));
    EXPECT_FALSE(read_definition(L"no xml"));
    EXPECT_FALSE(read_definition(task(L"<Command>a</Comma>")));
}

TEST(task_definition, is_read_as_the_installer_s_own) {
    // What the Task Scheduler gives back of it has the same elements.
    const auto found =
        read_definition(task(L"<Command>%ProgramFiles%\\Tavrin\\Halvoro\\lumaris.exe</Command>"));
    ASSERT_TRUE(found);
    EXPECT_EQ(looked_for(found->command), looked_for(L"%ProgramFiles%") + L"\\Tavrin\\Halvoro\\lumaris.exe");
    EXPECT_NE(looked_for(L"%ProgramFiles%"), L"%ProgramFiles%");
}

TEST(looked_for_command, has_no_quotation_marks_around_it_and_values_for_variables) {
    ASSERT_TRUE(::SetEnvironmentVariableW(L"LUMARIS_TEST", L"C:\\some folder"));
    EXPECT_EQ(looked_for(L"\"%LUMARIS_TEST%\\lumaris.exe\""), L"C:\\some folder\\lumaris.exe");
    EXPECT_EQ(looked_for(L"  C:\\a b\\lumaris.exe \r\n"), L"C:\\a b\\lumaris.exe");
    ASSERT_TRUE(::SetEnvironmentVariableW(L"LUMARIS_TEST", nullptr));
    EXPECT_EQ(looked_for(L"%LUMARIS_TEST%\\lumaris.exe"), L"%LUMARIS_TEST%\\lumaris.exe");
    EXPECT_EQ(looked_for(L""), L"");
    EXPECT_EQ(looked_for(L"\"\""), L"");
}

} // namespace
