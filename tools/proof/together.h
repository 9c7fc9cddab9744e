// Files that are almost the same, such as the crash programs, in one: 512 bytes of each in turn. Whatever packs that finds in the bytes
// just before what is the same in the other files, and 27 programs of 300 KB need little more room than four of them alone.
//
// Portable. tools/proof/__main__.py puts them together. No state, any thread.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace proof {

// Takes files of these sizes apart. Throws std::runtime_error when they do not come to the size of the one.
std::vector<std::string> apart(std::string_view together, std::span<const std::size_t> sizes);

} // namespace proof
