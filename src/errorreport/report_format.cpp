#include "errorreport/report_format.h"

#include "errorreport/little_endian.h"

#include <limits>
#include <stdexcept>

namespace corvo::errorreport {
namespace {

void put_tag(stream::basic& out, std::string_view tag) {
    put_bytes(out, tag.data(), tag.size());
}

void put_units(stream::basic& out, std::u16string_view units) {
    for (const char16_t unit : units) {
        put(out, static_cast<std::uint16_t>(unit));
    }
}

} // namespace

void write_header(stream::basic& out, report_kind kind, std::uint16_t machine) {
    put_tag(out, kind == report_kind::brief ? "TZO1" : "TZR1");
    put(out, machine);
}

void write_record_count(stream::basic& out, std::uint32_t count) {
    put(out, count);
}

void write_record(stream::basic& out, const exception_record& record) {
    put(out, record.code);
    put(out, record.flags);
    put(out, record.address);
    put(out, static_cast<std::uint32_t>(record.parameters.size()));
    for (const std::uint64_t parameter : record.parameters) {
        put(out, parameter);
    }
}

void write_notes(stream::basic& out, std::u16string_view units) {
    if (units.empty()) {
        return;
    }
    if (units.size() > std::numeric_limits<std::uint32_t>::max()) {
        throw std::logic_error("collection too big");
    }
    put_tag(out, "DOOP");
    put(out, static_cast<std::uint32_t>(units.size()));
    put_units(out, units);
}

void write_module(stream::basic& out, report_kind kind, const module_description& module) {
    put_tag(out, "MOD1");
    put(out, static_cast<std::uint32_t>(module.file_name.size()));
    put_units(out, module.file_name);
    put(out, module.time_stamp);
    if (kind == report_kind::full) {
        put(out, module.checksum);
        put(out, module.base);
    }
}

void write_function(stream::basic& out, std::uint64_t offset) {
    put_tag(out, "FUN1");
    put(out, offset);
}

void write_stack(stream::basic& out, std::uint64_t stack_pointer, std::span<const std::byte> memory) {
    put(out, static_cast<std::uint64_t>(memory.size()));
    if (!memory.empty()) {
        put(out, stack_pointer);
        put_bytes(out, memory.data(), memory.size());
    }
}

} // namespace corvo::errorreport
