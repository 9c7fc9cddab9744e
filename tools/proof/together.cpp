#include "tools/proof/together.h"

#include <algorithm>
#include <numeric>
#include <stdexcept>

namespace proof {

std::vector<std::string> apart(std::string_view together, std::span<const std::size_t> sizes) {
    constexpr std::size_t block = 512;
    if (std::accumulate(sizes.begin(), sizes.end(), std::size_t{0}) != together.size()) {
        throw std::runtime_error("the files do not come to the size of the one that holds them");
    }
    std::vector<std::string> files(sizes.size());
    while (!together.empty()) {
        for (std::size_t at = 0; at < files.size(); ++at) {
            const std::size_t size = std::min(block, sizes[at] - files[at].size());
            files[at] += together.substr(0, size);
            together.remove_prefix(size);
        }
    }
    return files;
}

} // namespace proof
