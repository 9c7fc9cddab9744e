#include "errorreport/note_list.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

using corvo::errorreport::note_list;

namespace {

std::wstring joined(const note_list& notes) {
    const auto units = notes.joined();
    return {units.begin(), units.end()};
}

TEST(note_list, empty_list_joins_to_nothing) {
    EXPECT_TRUE(note_list().joined().empty());
}

void add(note_list& notes, std::wstring note) {
    note_list::entry entry(std::move(note));
    notes.exchange(entry);
}

TEST(note_list, notes_are_joined_oldest_first_each_with_its_zero) {
    note_list notes;
    add(notes, L"one");
    add(notes, L"");
    add(notes, L"two");
    EXPECT_EQ(std::wstring(L"one\0\0two\0", 9), joined(notes));
}

TEST(note_list, an_eleventh_note_drops_the_oldest) {
    note_list notes;
    for (const wchar_t* note : {L"1", L"2", L"3", L"4", L"5", L"6", L"7", L"8", L"9", L"10", L"11"}) {
        add(notes, note);
    }
    EXPECT_EQ(std::wstring(L"2\0"
                           L"3\0"
                           L"4\0"
                           L"5\0"
                           L"6\0"
                           L"7\0"
                           L"8\0"
                           L"9\0"
                           L"10\0"
                           L"11\0",
                           22),
              joined(notes));
}

TEST(note_list, ten_notes_are_all_kept) {
    note_list notes;
    for (int i = 0; i < 10; ++i) {
        add(notes, L"x");
    }
    EXPECT_EQ(20U, notes.joined().size());
}

TEST(note_list, swapped_lists_have_each_others_notes) {
    note_list notes;
    add(notes, L"one");
    note_list others;
    notes.swap(others);
    EXPECT_TRUE(notes.joined().empty());
    EXPECT_EQ(std::wstring(L"one\0", 4), joined(others));
}

TEST(note_list, a_container_that_can_hold_no_more_is_refused) {
    EXPECT_NO_THROW(corvo::errorreport::require_room(9, 10));
    try {
        corvo::errorreport::require_room(10, 10);
        FAIL();
    } catch (const std::length_error& error) {
        EXPECT_STREQ("list too long", error.what());
    }
}

} // namespace
