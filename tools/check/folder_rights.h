// Who may write in a folder, and who should not. Portable; judges what was read, and asks nobody.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace check {

// One entry of an access control list that allows something. Security identifiers are texts such as "S-1-1-0".
struct allowed_entry {
    std::string who;
    std::uint32_t
        rights; // an access mask, generic rights included; of an entry for what is made in the folder, too
};

struct folder_rights {
    std::string owner;
    bool everything_to_everybody = false; // there is no list
    std::vector<allowed_entry> allowed;
};

// The identifiers of those who may exchange what stands in the folder, without SYSTEM, administrators, Windows' own installer, whoever made a
// file, and `administrator`, the account that asks when it is one. Entries that deny are not looked at: they hold for some of many.
std::vector<std::string> others_who_may_write(const folder_rights& rights, const std::string& administrator);

} // namespace check
