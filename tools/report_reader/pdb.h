// Reads a PDB with llvm-pdbutil.
//
// POSIX: the program is started with a vector of arguments, without a shell, and waited for. No state, any thread.
#pragma once

#include "tools/report_reader/symbols.h"

#include <string>
#include <string_view>

namespace corvo::report_reader {

// Throws std::runtime_error that names the file: it cannot be read, it is no PDB or a damaged one, there are no functions in
// it, or there is no llvm-pdbutil.
symbol_table read_pdb(const std::string& path);

// Whether a PDB of this path belongs to a module of this name: both are called the same up to the extension, as
// lumaris.pdb and lumaris.exe are. Capitals do not count.
bool is_pdb_of(std::string_view path, std::string_view module);

} // namespace corvo::report_reader
