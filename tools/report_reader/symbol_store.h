// Programs and PDBs of many builds in folders, and the one that a report's module belongs to.
//
// A folder is a symbol store in the usual layout, or simply holds programs beside their PDBs:
//
//     DIR/lumaris.exe/6A3F00125B000/lumaris.exe                          time stamp (8 digits) and size of the image
//     DIR/lumaris.pdb/0123456789ABCDEF0123456789ABCDEF1/lumaris.pdb      GUID and age
//     DIR/crash.exe, DIR/crash.pdb                                       beside each other
//
// A module is found by its name, in which capitals do not count, and its time stamp. An object keeps the symbols of the builds
// that were last asked for; one thread at a time.
#pragma once

#include "tools/report_reader/report.h"
#include "tools/report_reader/symbols.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <list>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace corvo::report_reader {

class symbol_store {
public:
    // `kept` is how many builds remain loaded.
    explicit symbol_store(std::vector<std::filesystem::path> folders, std::size_t kept = 8);

    // A null pointer if no folder knows a module of that name; `why` of refusals() says why one that is known was refused.
    module_symbols* find(std::string_view module, std::uint32_t time_stamp);

    // One chain for each frame, empty for those of which nothing is known.
    std::vector<code_chain> find(const report& what);

    // What was refused since the last call, each with the names of the files.
    std::vector<std::string> take_refusals() { return std::exchange(m_refusals, {}); }

    // Forgets what it has loaded and what it did not find: there may be new files.
    void forget() { m_loaded.clear(); }

private:
    struct loaded {
        std::string module; // in small letters
        std::uint32_t time_stamp;
        std::unique_ptr<module_symbols> symbols; // null if there are none
    };

    std::unique_ptr<module_symbols> load(const std::string& module, std::uint32_t time_stamp);
    std::unique_ptr<module_symbols> load_program(const std::filesystem::path& folder,
                                                 const std::filesystem::path& program,
                                                 const program_identity& identity);

    std::vector<std::filesystem::path> m_folders;
    std::size_t m_kept;
    std::list<loaded> m_loaded; // the one last asked for first
    std::vector<std::string> m_refusals;
};

// Puts a program or a PDB where the store's layout wants it and returns that path. It appears there whole or not at all. Throws
// std::runtime_error that names the file when it is neither.
std::filesystem::path add_to_store(const std::filesystem::path& folder, const std::filesystem::path& file);

// In small letters, as far as ASCII goes.
std::string lower_case(std::string_view text);

} // namespace corvo::report_reader
