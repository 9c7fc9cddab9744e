// The parts of an error report, as bytes. docs/report_format.md describes the format with a worked example.
//
// Portable. The functions append to a stream of the caller's, one part each, in the order in which they stand here; all
// integers are little-endian, nothing is padded. Once the stream has failed they do nothing: a report that could not be
// written completely ends early, and finishing the compression reports the failure. One thread at a time.
#pragma once

#include "stream/basic.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace corvo::errorreport {

enum class report_kind {
    brief, // "TZO1": first exception record, functions
    full   // "TZR1": all records, processor context, modules with their base, stack memory
};

struct exception_record {
    std::uint32_t code;
    std::uint32_t flags;
    std::uint64_t address;
    std::span<const std::uint64_t> parameters;
};

// Magic and machine type (PE/COFF "Machine" field).
void write_header(stream::basic& out, report_kind kind, std::uint16_t machine);

// How many records the chain has; full reports only. Ahead of the records themselves.
void write_record_count(stream::basic& out, std::uint32_t count);

void write_record(stream::basic& out, const exception_record& record);

// The notes, each with its terminating zero unit (UTF-16). Nothing is written if there are none. Throws
// std::logic_error "collection too big" above 0xFFFFFFFF units.
void write_notes(stream::basic& out, std::u16string_view units);

struct module_description {
    std::u16string_view file_name; // without a folder
    std::uint32_t time_stamp;      // of the PE file header, 0 for none
    std::uint32_t checksum;        // of the PE optional header, 0 for none
    std::uint64_t base;
};

// Starts the frames of a module; they follow as function blocks until the next module. Checksum and base are in full
// reports only.
void write_module(stream::basic& out, report_kind kind, const module_description& module);

// One frame: its program counter as a distance from the module's base.
void write_function(stream::basic& out, std::uint64_t offset);

// The stack memory of the frame before it; full reports only. `memory` begins at the address `stack_pointer`; an empty one
// writes a size of 0 and no address.
void write_stack(stream::basic& out, std::uint64_t stack_pointer, std::span<const std::byte> memory);

} // namespace corvo::errorreport
