// The system's own folder (System32) as the current one. Acts on the whole process.
#pragma once

namespace pwrap {

// Makes System32 the current folder. The shell looks for a program that is named without a folder in the current one first, and that
// would otherwise be whatever folder somebody has started this program in. If the system refuses, nothing changes.
void enter_system_folder() noexcept;

} // namespace pwrap
