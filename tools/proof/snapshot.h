// What was there at one moment: names of things on the machine, such as files and registry values, with what is to be compared of them.
//
// Portable; take_snapshot.h takes them. No state, any thread.
#pragma once

#include <map>
#include <string>

namespace proof {

using snapshot = std::map<std::string, std::string>;

// "none", or what is new, gone and changed, in the order of the names: "new file C:\x, changed value HKLM\y".
std::string changes(const snapshot& before, const snapshot& after);

} // namespace proof
