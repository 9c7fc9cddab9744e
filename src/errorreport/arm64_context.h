// The processor context of a 64-bit ARM thread, in a structure of our own with the platform's layout (912 bytes; winnt.h
// ARM64_NT_CONTEXT), so that its serialisation is the same code and is tested on every machine.
//
// Portable; holds no state. Any thread.
#pragma once

#include "stream/basic.h"

#include <cstddef>
#include <cstdint>

namespace corvo::errorreport {

struct alignas(16) arm64_context {
    std::uint32_t context_flags;
    std::uint32_t cpsr;
    std::uint64_t x[29]; // X0 to X28
    std::uint64_t fp;    // X29
    std::uint64_t lr;    // X30
    std::uint64_t sp;
    std::uint64_t pc;
    std::uint64_t v[32][2]; // low half first
    std::uint32_t fpcr;
    std::uint32_t fpsr;
    std::uint32_t bcr[8];
    std::uint64_t bvr[8];
    std::uint32_t wcr[2];
    std::uint64_t wvr[2];
};
static_assert(sizeof(arm64_context) == 912);
static_assert(offsetof(arm64_context, x) == 8 && offsetof(arm64_context, sp) == 256);
static_assert(offsetof(arm64_context, v) == 272 && offsetof(arm64_context, fpcr) == 784);
static_assert(offsetof(arm64_context, bcr) == 792 && offsetof(arm64_context, wvr) == 896);

// Writes the flags and the blocks that they ask for: integer, control, floating point, debug. See the source for which
// that are. Does nothing on a stream that has failed.
void write_context(stream::basic& out, const arm64_context& context);

} // namespace corvo::errorreport
