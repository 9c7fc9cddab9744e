// Functions and source lines of a program, from its PDB.
//
// The PDB is read by llvm-pdbutil (`dump -section-headers -publics -symbols -l`); this takes that program's text apart, as
// LLVM 19 writes it. Portable. A table owns what it holds and does not change once made; any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace corvo::report_reader {

struct code_place {
    std::string function;          // as people write it; C++ names are demangled
    std::uint64_t function_offset; // from the function's start
    std::string source;            // "file:line", empty where that is not known
};

class symbol_table {
public:
    // Lines that say nothing of functions or source lines are skipped: a PDB without any gives an empty table.
    explicit symbol_table(std::string_view dump);

    bool empty() const noexcept { return m_functions.empty(); }

    // The place of a frame; `offset` is from the module's base. All frames but the first hold a return address, which may
    // already belong to the next statement or even, behind a call that does not return, to the next function: they are
    // looked up one byte earlier, in the call. The function's offset is that of the frame nevertheless.
    std::optional<code_place> find(std::uint64_t offset, bool is_return_address) const;

private:
    struct function {
        std::string name; // of the procedure record; empty where there are public names alone
        std::uint64_t size = 0;
        std::vector<std::string> public_names; // several, where the linker has folded the same code
    };
    struct line {
        unsigned long number; // 0 for code that belongs to no line
        std::size_t file;
    };
    struct line_range {
        std::uint64_t end = 0;
        std::map<std::uint64_t, line> lines;
    };
    class reader;

    std::string source_of(std::uint64_t offset) const;

    std::map<std::uint64_t, function> m_functions; // by their start
    std::map<std::uint64_t, line_range> m_ranges;  // by their start
    std::vector<std::string> m_files;
};

} // namespace corvo::report_reader
