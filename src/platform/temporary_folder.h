// The folder for temporary files of the user that the process runs as. Any thread.
#pragma once

#include <string>

namespace pwrap {

// The folder's path with its closing backslash. Throws pwrap::win_runtime_error "GetTempPath failed".
std::wstring temporary_folder();

} // namespace pwrap
