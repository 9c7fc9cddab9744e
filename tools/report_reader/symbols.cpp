#include "tools/report_reader/symbols.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cxxabi.h>
#include <iterator>
#include <memory>
#include <utility>

namespace corvo::report_reader {

namespace {

struct free_memory {
    void operator()(char* memory) const noexcept { std::free(memory); }
};

std::string demangled(const std::string& name) {
    if (!name.starts_with("_Z")) {
        return name;
    }
    int status = 0;
    const std::unique_ptr<char, free_memory> text(
        abi::__cxa_demangle(name.c_str(), nullptr, nullptr, &status));
    return status == 0 ? std::string(text.get()) : name;
}

// A namespace without a name as demangled names have it, and not as procedure records do.
std::string readable(std::string name) {
    static constexpr std::string_view theirs = "`anonymous namespace'";
    for (std::size_t at = 0; (at = name.find(theirs, at)) != std::string::npos;) {
        name.replace(at, theirs.size(), "(anonymous namespace)");
    }
    return name;
}

std::string_view trimmed(std::string_view text) {
    const std::size_t begin = text.find_first_not_of(' ');
    return begin == std::string_view::npos ? std::string_view()
                                           : text.substr(begin, text.find_last_not_of(' ') + 1 - begin);
}

std::optional<std::uint64_t> number(std::string_view text, int base) {
    std::uint64_t value = 0;
    const std::from_chars_result result =
        std::from_chars(text.data(), text.data() + text.size(), value, base);
    if (result.ec != std::errc() || result.ptr != text.data() + text.size()) {
        return std::nullopt;
    }
    return value;
}

template <typename Function> void for_each_line(std::string_view text, const Function& function) {
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        std::string_view line = text.substr(0, end);
        if (line.ends_with('\r')) {
            line.remove_suffix(1);
        }
        function(line);
        text.remove_prefix(std::min(end + 1, text.size()));
    }
}

// The number behind `label`, up to the first character that is none of its digits.
std::optional<std::uint64_t> labelled(std::string_view text, std::string_view label) {
    const std::size_t at = text.find(label);
    if (at == std::string_view::npos) {
        return std::nullopt;
    }
    text.remove_prefix(at + label.size());
    return number(text.substr(0, text.find_first_not_of("0123456789")), 10);
}

} // namespace

// Goes through the text line by line. Three kinds of things are in it:
//
//     SECTION HEADER #1
//       ...
//          1000 virtual address
//
//     7129 | S_GPROC32 [size = 44] `run`
//            parent = 0, end = 1924, addr = 0001:1280, code size = 545
//
//     /path/run.cpp (MD5: ...)
//       0001:00000500-00000721, line/addr entries = 2
//         39 00000500 !   40 0000050D !
//
// Offsets are decimal with functions and hexadecimal with lines.
class symbol_table::reader {
public:
    explicit reader(symbol_table& table) : m_table(table) {}

    // The sections stand last in the text, but everything else counts from them, so this is for a pass of its own.
    void take_section(std::string_view text) {
        if (text.find("SECTION HEADER #") != std::string_view::npos) {
            m_section = labelled(text, "SECTION HEADER #").value_or(0);
        } else if (text.ends_with(" virtual address")) {
            add_section(text);
        }
    }

    void take(std::string_view text) {
        if (std::exchange(m_details_follow, false)) {
            add_function(text);
        } else if (text.find(" | S_") != std::string_view::npos) {
            begin_function(text);
        } else if (text.find(", line/addr entries = ") != std::string_view::npos) {
            begin_range(trimmed(text));
        } else if (text.ends_with(')') && text.front() != ' ') {
            begin_file(text);
        } else if (text.starts_with(' ')) {
            add_lines(text);
        }
    }

private:
    void begin_function(std::string_view text) {
        m_is_public = text.find(" | S_PUB32 [") != std::string_view::npos;
        const bool is_procedure = text.find(" | S_GPROC32 [") != std::string_view::npos ||
                                  text.find(" | S_LPROC32 [") != std::string_view::npos;
        const std::size_t begin = text.find("] `");
        if ((!m_is_public && !is_procedure) || begin == std::string_view::npos || !text.ends_with('`')) {
            return;
        }
        m_name = text.substr(begin + 3, text.size() - begin - 4);
        m_details_follow = true;
    }

    void add_function(std::string_view text) {
        if (m_is_public && text.find("flags = function") == std::string_view::npos) {
            return;
        }
        const std::optional<std::uint64_t> section = labelled(text, "addr = ");
        const std::size_t colon = text.find(':', std::min(text.find("addr = "), text.size()));
        const std::optional<std::uint64_t> offset = labelled(text.substr(std::min(colon, text.size())), ":");
        const std::optional<std::uint64_t> start =
            section && offset ? position(*section, *offset) : std::nullopt;
        if (!start) {
            return;
        }
        function& entry = m_table.m_functions[*start];
        if (m_is_public) {
            entry.public_names.emplace_back(m_name);
        } else if (entry.name.empty()) {
            entry.name = m_name;
            entry.size = labelled(text, "code size = ").value_or(0);
        }
    }

    // The sections are listed twice, the second time as they were before the linker laid them out: the first list counts.
    void add_section(std::string_view text) {
        const std::string_view word = trimmed(text.substr(0, text.find(" virtual address")));
        if (m_section == m_sections.size() + 1) {
            m_sections.push_back(number(word, 16).value_or(0));
        }
    }

    // "/path/run.cpp (MD5: ...)". For a module without lines llvm-pdbutil repeats those of the module before it, below
    // "(unknown file name offset 0)": they are of no file.
    void begin_file(std::string_view text) {
        m_range = nullptr;
        m_file_known = text.rfind(" (") != std::string_view::npos;
        if (m_file_known) {
            m_table.m_files.emplace_back(text.substr(0, text.rfind(" (")));
        }
    }

    void begin_range(std::string_view text) {
        m_range = nullptr;
        const std::size_t colon = text.find(':');
        const std::size_t dash = text.find('-');
        const std::size_t comma = text.find(',');
        if (!(colon < dash && dash < comma) || !m_file_known) {
            return;
        }
        const std::optional<std::uint64_t> section = number(text.substr(0, colon), 16);
        const std::optional<std::uint64_t> begin = number(text.substr(colon + 1, dash - colon - 1), 16);
        const std::optional<std::uint64_t> end = number(text.substr(dash + 1, comma - dash - 1), 16);
        if (!section || !begin || !end) {
            return;
        }
        const std::optional<std::uint64_t> start = position(*section, *begin);
        if (start) {
            m_range_section = *section;
            m_range = &m_table.m_ranges[*start];
            m_range->end = *start + (*end - *begin);
        }
    }

    // Pairs of a line and an offset, each followed by a mark for what is no statement of its own.
    void add_lines(std::string_view text) {
        std::optional<std::uint64_t> pending;
        while (m_range != nullptr && !(text = trimmed(text)).empty()) {
            const std::string_view word = text.substr(0, text.find(' '));
            text.remove_prefix(word.size());
            if (word == "!") {
                continue;
            }
            if (!pending) {
                // What is no number marks code that a debugger steps over.
                pending = number(word, 10).value_or(0);
                continue;
            }
            const std::optional<std::uint64_t> offset = number(word, 16);
            const std::optional<std::uint64_t> at =
                offset ? position(m_range_section, *offset) : std::nullopt;
            if (at) {
                m_range->lines.try_emplace(
                    *at, line{static_cast<unsigned long>(*pending), m_table.m_files.size() - 1});
            }
            pending.reset();
        }
    }

    std::optional<std::uint64_t> position(std::uint64_t section, std::uint64_t offset) const {
        if (section == 0 || section > m_sections.size()) {
            return std::nullopt;
        }
        return m_sections[static_cast<std::size_t>(section - 1)] + offset;
    }

    symbol_table& m_table;
    std::vector<std::uint64_t> m_sections;
    std::uint64_t m_section = 0;
    std::string_view m_name;
    bool m_is_public = false;
    bool m_details_follow = false;
    bool m_file_known = false;
    std::uint64_t m_range_section = 0;
    line_range* m_range = nullptr;
};

symbol_table::symbol_table(std::string_view dump) {
    reader lines(*this);
    for_each_line(dump, [&lines](std::string_view text) { lines.take_section(text); });
    for_each_line(dump, [&lines](std::string_view text) { lines.take(text); });
}

std::optional<code_place> symbol_table::find(std::uint64_t offset, bool is_return_address) const {
    const std::uint64_t wanted = is_return_address && offset > 0 ? offset - 1 : offset;
    auto next = m_functions.upper_bound(wanted);
    if (next == m_functions.begin()) {
        return std::nullopt;
    }
    const auto& [start, found] = *std::prev(next);
    std::string name = readable(found.name);
    if (!found.name.empty()) {
        if (wanted - start >= found.size) {
            return std::nullopt;
        }
        // The public name has the parameters, too.
        for (const std::string& public_name : found.public_names) {
            const std::string whole = demangled(public_name);
            if (whole.starts_with(name + "(")) {
                name = whole;
                break;
            }
        }
    } else {
        name = demangled(*std::min_element(found.public_names.begin(), found.public_names.end()));
    }
    return code_place{std::move(name), offset - start, source_of(wanted)};
}

std::string symbol_table::source_of(std::uint64_t offset) const {
    const auto next = m_ranges.upper_bound(offset);
    if (next == m_ranges.begin()) {
        return {};
    }
    const line_range& range = std::prev(next)->second;
    const auto behind = range.lines.upper_bound(offset);
    if (offset >= range.end || behind == range.lines.begin()) {
        return {};
    }
    const line& found = std::prev(behind)->second;
    return found.number == 0 ? std::string() : m_files[found.file] + ":" + std::to_string(found.number);
}

} // namespace corvo::report_reader
