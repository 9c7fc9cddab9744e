// What the error reporting knows about the processor, all in one place: the program is made for ARM64, and built for x86-64 only so
// that the same code can be tested at full speed. Pure functions; any thread.
#pragma once

#include "stream/basic.h"

#include <windows.h>

#include <cstdint>

namespace corvo::errorreport {

// Machine type of this build (PE/COFF "Machine" field), for the report and for the walk along the stack.
#ifdef __aarch64__
inline constexpr std::uint16_t machine_type = 0xAA64;
#else
inline constexpr std::uint16_t machine_type = 0x8664;
#endif

// The registers that a walk along the stack starts from.
struct frame_registers {
    DWORD64 program_counter;
    DWORD64 frame_pointer;
    DWORD64 stack_pointer;
    DWORD64 backing_store;
};
frame_registers frame_of(const CONTEXT& context) noexcept;

// Writes the context's part of a full report. The x86-64 build has none: its flags are 0 and no block follows.
void write_processor_context(stream::basic& out, const CONTEXT& context);

} // namespace corvo::errorreport
