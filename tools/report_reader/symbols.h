// Functions and source lines of one build of a program, from the program and its PDB.
//
// LLVM's own PDB reader does the reading. An object owns the files it has read; it may be used by one thread at a time,
// since the reader keeps what it has looked up. The files are those of our own releases and are trusted; a damaged one is
// refused if LLVM notices.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace corvo::report_reader {

struct code_place {
    std::string function;              // as people write it; C++ names are demangled
    std::uint64_t function_offset = 0; // from the function's start; 0 for one that was put into another
    std::string source;                // "file:line", empty if that is not known
};

// What a frame's address lies in: the innermost function that the compiler put into another one first, and last the function
// that the code belongs to. Empty for an address of which nothing is known.
using code_chain = std::vector<code_place>;

// What distinguishes one build of a program from another.
struct program_identity {
    std::uint32_t time_stamp;    // PE file header; for our programs a hash of the content
    std::uint32_t size_of_image; // PE optional header
    std::string pdb_name;        // of the debug directory, without a folder; empty without a PDB
    std::string pdb_id;          // GUID and age, as symbol stores name their folders
    std::string version;         // of the version resource, such as "1.2.3"; empty without one
};

// Both throw std::runtime_error that names the file.
program_identity identify_program(const std::filesystem::path& program);
std::string identify_pdb(const std::filesystem::path& pdb);

class module_symbols {
public:
    // Throws std::runtime_error: a file cannot be read, or the PDB belongs to another build of the program.
    module_symbols(const std::filesystem::path& program, const std::filesystem::path& pdb);
    ~module_symbols();
    module_symbols(const module_symbols&) = delete;
    module_symbols& operator=(const module_symbols&) = delete;

    // `offset` is from the module's base. All frames but the first hold a return address, which may already belong to the next
    // statement or even, behind a call that does not return, to the next function: they are looked up one byte earlier, in
    // the call. The function's offset is that of the frame nevertheless.
    code_chain find(std::uint64_t offset, bool is_return_address);

private:
    struct reader;
    std::unique_ptr<reader> m_reader;
};

} // namespace corvo::report_reader
