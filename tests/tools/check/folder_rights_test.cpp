#include "tools/check/folder_rights.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using check::folder_rights;
using check::others_who_may_write;
using names = std::vector<std::string>;

constexpr char administrator[] = "S-1-5-21-1-2-3-500";
constexpr char users[] = "S-1-5-32-545";

// What the installer gives the folder.
folder_rights closed() {
    folder_rights rights;
    rights.owner = "S-1-5-18";
    rights.allowed = {{"S-1-5-18", 0x1F01FF}, {"S-1-5-32-544", 0x1F01FF}, {users, 0x1200A9}};
    return rights;
}

TEST(folder_rights, are_closed_when_others_can_only_read) {
    EXPECT_EQ(others_who_may_write(closed(), administrator), names{});
}

TEST(folder_rights, are_those_of_the_common_program_files_closed_too) {
    folder_rights rights;
    rights.owner = "S-1-5-80-956008885-3418522649-1831038044-1853292631-2271478464";
    rights.allowed = {{rights.owner, 0x1F01FF}, {"S-1-5-18", 0x10000000}, {"S-1-5-32-544", 0x1301BF},
                      {"S-1-3-0", 0x10000000},  {"S-1-15-2-1", 0x1200A9}, {users, 0xA0000000}};
    EXPECT_EQ(others_who_may_write(rights, administrator), names{});
}

TEST(folder_rights, name_everybody_who_has_any_right_to_exchange_what_is_in_it) {
    for (const std::uint32_t right :
         {0x2U, 0x4U, 0x40U, 0x10000U, 0x40000U, 0x80000U, 0x40000000U, 0x10000000U}) {
        folder_rights rights = closed();
        rights.allowed.push_back({"S-1-1-0", 0x1200A9 | right});
        EXPECT_EQ(others_who_may_write(rights, administrator), names{"S-1-1-0"}) << right;
    }
}

TEST(folder_rights, name_nobody_twice) {
    folder_rights rights = closed();
    rights.allowed.insert(rights.allowed.end(), {{users, 0x2}, {"S-1-5-11", 0x4}, {users, 0x40}});
    EXPECT_EQ(others_who_may_write(rights, administrator), (names{users, "S-1-5-11"}));
}

TEST(folder_rights, name_an_owner_who_is_no_administrator) {
    folder_rights rights = closed();
    rights.owner = "S-1-5-21-1-2-3-1001";
    EXPECT_EQ(others_who_may_write(rights, administrator), names{"S-1-5-21-1-2-3-1001"});
    EXPECT_EQ(others_who_may_write(rights, rights.owner), names{});
}

TEST(folder_rights, without_a_list_are_everybody_s) {
    folder_rights rights;
    rights.owner = "S-1-5-18";
    rights.everything_to_everybody = true;
    EXPECT_EQ(others_who_may_write(rights, administrator), names{"S-1-1-0"});
}

} // namespace
