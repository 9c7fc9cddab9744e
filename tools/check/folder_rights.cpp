#include "tools/check/folder_rights.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace check {

namespace {

constexpr std::string_view everyone = "S-1-1-0";

constexpr std::array<std::string_view, 4> trusted{
    "S-1-5-18",     // SYSTEM
    "S-1-5-32-544", // administrators
    "S-1-3-0",      // stands for whoever makes a file, who must have been allowed to make it
    "S-1-5-80-956008885-3418522649-1831038044-1853292631-2271478464", // TrustedInstaller
};

// Adding files or data, adding folders, deleting what is in it, deleting or renaming it, changing rights or owner; generic writing and everything.
constexpr std::uint32_t writing = 0x2 | 0x4 | 0x40 | 0x10000 | 0x40000 | 0x80000 | 0x40000000 | 0x10000000;

} // namespace

std::vector<std::string> others_who_may_write(const folder_rights& rights, const std::string& administrator) {
    std::vector<std::string> others;
    const auto add = [&](const std::string& who) {
        const bool is_trusted =
            who == administrator || std::find(trusted.begin(), trusted.end(), who) != trusted.end();
        if (!is_trusted && std::find(others.begin(), others.end(), who) == others.end()) {
            others.push_back(who);
        }
    };
    if (rights.everything_to_everybody) {
        add(std::string(everyone));
    }
    add(rights.owner); // who may give rights to anybody
    for (const allowed_entry& each : rights.allowed) {
        if ((each.rights & writing) != 0) {
            add(each.who);
        }
    }
    return others;
}

} // namespace check
