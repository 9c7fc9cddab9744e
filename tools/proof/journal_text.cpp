#include "tools/proof/journal_text.h"

namespace proof {

namespace {

constexpr std::string_view block_begin = "\r\n# Begin of the Lumaris proof\r\n";
constexpr std::string_view block_end = "# End of the Lumaris proof\r\n";

std::vector<std::string> split(std::string_view text, char separator) {
    std::vector<std::string> parts;
    for (;;) {
        const std::size_t end = text.find(separator);
        parts.emplace_back(text.substr(0, end));
        if (end == std::string_view::npos) {
            return parts;
        }
        text.remove_prefix(end + 1);
    }
}

} // namespace

std::string journal_line(const journal_entry& entry) {
    std::string line;
    for (const std::string& part : entry) {
        line += (line.empty() ? "" : "\t") + part;
    }
    return line + "\n";
}

std::vector<journal_entry> journal_entries(std::string_view list) {
    std::vector<journal_entry> entries;
    for (const std::string& line : split(list.substr(0, list.rfind('\n') + 1), '\n')) {
        if (!line.empty()) {
            entries.push_back(split(line, '\t'));
        }
    }
    return entries;
}

std::string hosts_block(std::span<const host_name> names) {
    std::string block(block_begin);
    for (const host_name& each : names) {
        block += each.address + " " + each.name + "\r\n";
    }
    return block.append(block_end);
}

std::string without_hosts_blocks(std::string hosts) {
    for (;;) {
        const std::size_t begin = hosts.find(block_begin);
        if (begin == std::string::npos) {
            return hosts;
        }
        const std::size_t end = hosts.find(block_end, begin);
        hosts.erase(begin, end == std::string::npos ? end : end + block_end.size() - begin);
    }
}

} // namespace proof
