// What the error reporting knows about the user, the processor and the rights of the process.
#pragma once

#include <cstdint>
#include <string>

namespace corvo::errorreport {

// A field whose source cannot be read keeps its default.
struct system_description {
    std::wstring user_name;                // in the form domain\user
    std::uint16_t native_machine = 0xAA64; // machine type of the processor (PE/COFF "Machine" field); ARM64
    bool emulated = false;                 // the process runs under emulation
    bool interactive = true;               // its window station is the one that a user can see
    bool administrators_member = false;    // the token lists the Administrators group, whether enabled or not
    bool elevated = false;                 // the token is elevated
};

// Asks the system. Reports no failure; throws only std::bad_alloc.
system_description describe_system();

// The description of the running process, created once, during static initialisation or at the first call before that, and only
// read afterwards. It lasts as long as the process.
const system_description& running_system() noexcept;

} // namespace corvo::errorreport
