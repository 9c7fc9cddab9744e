// An error report taken apart. docs/report_format.md describes the format with a worked example.
//
// Portable. A report owns all it holds and has no connection to the bytes it came from. Parsing is strict, to the last byte:
// what it accepts is put together again to the same bytes. No state, any thread.
#pragma once

#include "tools/report_reader/damage.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace corvo::report_reader {

enum class report_kind {
    brief, // "TZO1"
    full   // "TZR1"
};

// PE/COFF "Machine" field.
enum class machine_type : std::uint16_t {
    arm64 = 0xAA64, // the product
    x86_64 = 0x8664 // the build for quick testing; no processor context in its reports
};

struct exception_record {
    std::uint32_t code;
    std::uint32_t flags;
    std::uint64_t address;
    std::vector<std::uint64_t> parameters;
};

struct integer_registers {
    std::array<std::uint64_t, 29> x;
    std::uint64_t fp;
    std::uint64_t lr;
};

struct control_registers {
    std::uint64_t fp; // again, and so is lr
    std::uint64_t lr;
    std::uint64_t sp;
    std::uint64_t pc;
    std::uint32_t cpsr;
};

struct vector_register {
    std::uint64_t low;
    std::uint64_t high;
};

struct floating_point_registers {
    std::array<vector_register, 32> v;
    std::uint32_t fpcr;
    std::uint32_t fpsr;
};

struct debug_registers {
    std::array<std::uint32_t, 8> bcr;
    std::array<std::uint64_t, 8> bvr;
    std::array<std::uint32_t, 2> wcr;
    std::array<std::uint64_t, 2> wvr;
};

// The blocks that the flags ask for are there, no others.
struct processor_context {
    std::uint32_t flags;
    std::optional<integer_registers> integer;
    std::optional<control_registers> control;
    std::optional<floating_point_registers> floating_point;
    std::optional<debug_registers> debug;
};

// Checksum and base are in full reports only.
struct module_block {
    std::u16string name;
    std::uint32_t time_stamp;
    std::optional<std::uint32_t> checksum;
    std::optional<std::uint64_t> base;
};

// Never empty: a frame without stack memory has no such block.
struct stack_block {
    std::uint64_t address;
    std::vector<std::byte> bytes;
};

struct frame {
    std::size_t module;   // index into report::modules
    std::uint64_t offset; // of the program counter from the module's base
    std::optional<stack_block> stack;
};

struct report {
    report_kind kind;
    machine_type machine;
    std::vector<exception_record> records;            // one in a short report, at least one in a full one
    std::optional<processor_context> context;         // full reports only
    std::optional<std::vector<std::u16string>> notes; // oldest first, at least one if there are any
    std::vector<module_block> modules;                // in the order of the stream; one may occur again
    std::vector<frame> frames; // from the fault outward; none if the walk found no module
};

// Throws `damage` with the offset in `bytes` at which the part begins that cannot be.
report parse_report(std::span<const std::byte> bytes);

} // namespace corvo::report_reader
