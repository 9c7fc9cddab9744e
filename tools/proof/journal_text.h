// What the journal of a proof keeps as text: its list of changes, and its names in the hosts file.
//
// Portable. Whatever moment a proof was killed at, and whatever stands in a file, reading it fails never. No state, any thread.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace proof {

// One change: what it is, and what its undoing needs to know. No part holds a tab or a line end.
using journal_entry = std::vector<std::string>;

// The line of an entry in the list, with its end.
std::string journal_line(const journal_entry& entry);

// A last line without its end was cut off before its change was made, and is no entry.
std::vector<journal_entry> journal_entries(std::string_view list);

struct host_name {
    std::string address;
    std::string name;
};

// What is added to the hosts file for these names, in one piece.
std::string hosts_block(std::span<const host_name> names);

// The hosts file without such blocks. One that was cut off ends with the file.
std::string without_hosts_blocks(std::string hosts);

} // namespace proof
