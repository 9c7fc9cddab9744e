#include "tools/report_reader/print.h"

#include "tools/report_reader/names.h"

#include <array>
#include <cstdarg>
#include <cstdio>

namespace corvo::report_reader {

namespace {

#if defined(__GNUC__)
[[gnu::format(printf, 2, 3)]]
#endif
void append(std::string& text, const char* format, ...) {
    std::array<char, 256> piece{};
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(piece.data(), piece.size(), format, arguments);
    va_end(arguments);
    text += piece.data();
}

unsigned long long wide(std::uint64_t value) {
    return value;
}

// Registers of one width, some to a line.
template <typename Registers>
void append_registers(std::string& text, const char* name, const Registers& registers, std::size_t in_a_line,
                      int digits) {
    for (std::size_t index = 0; index < registers.size(); ++index) {
        const std::string label = name + std::to_string(index);
        append(text, "  %-4s 0x%0*llX", label.c_str(), digits, wide(registers[index]));
        if (index % in_a_line == in_a_line - 1 || index + 1 == registers.size()) {
            text += '\n';
        }
    }
}

void append_record(std::string& text, const exception_record& record) {
    const std::string_view name = exception_name(record.code);
    const std::string flags = exception_flag_names(record.flags);
    const std::string detail = exception_detail(record);
    text += "exception " + hexadecimal(record.code);
    text += name.empty() ? "" : " (" + std::string(name) + ")";
    text += detail.empty() ? "" : " " + detail;
    text += "\n  at " + hexadecimal(record.address) + ", flags " + hexadecimal(record.flags);
    text += flags.empty() ? "" : " (" + flags + ")";
    text += '\n';
    for (std::size_t index = 0; index < record.parameters.size(); ++index) {
        text += "  parameter " + std::to_string(index) + ": " + hexadecimal(record.parameters[index]) + "\n";
    }
}

void append_context(std::string& text, const processor_context& context) {
    text += "processor context, flags " + hexadecimal(context.flags) + "\n";
    if (context.integer) {
        append_registers(text, "X", context.integer->x, 4, 16);
        append(text, "  %-4s 0x%016llX  %-4s 0x%016llX\n", "Fp", wide(context.integer->fp), "Lr",
               wide(context.integer->lr));
    }
    if (context.control) {
        const control_registers& control = *context.control;
        append(text, "  %-4s 0x%016llX  %-4s 0x%016llX  %-4s 0x%016llX  %-4s 0x%016llX\n", "Fp",
               wide(control.fp), "Lr", wide(control.lr), "Sp", wide(control.sp), "Pc", wide(control.pc));
        append(text, "  %-4s 0x%08X\n", "Cpsr", control.cpsr);
    }
    if (context.floating_point) {
        for (std::size_t index = 0; index < context.floating_point->v.size(); ++index) {
            const vector_register& value = context.floating_point->v[index];
            const std::string label = "V" + std::to_string(index);
            append(text, "  %-4s 0x%016llX%016llX%s", label.c_str(), wide(value.high), wide(value.low),
                   index % 2 == 1 ? "\n" : "");
        }
        append(text, "  %-4s 0x%08X  %-4s 0x%08X\n", "Fpcr", context.floating_point->fpcr, "Fpsr",
               context.floating_point->fpsr);
    }
    if (context.debug) {
        append_registers(text, "Bcr", context.debug->bcr, 4, 8);
        append_registers(text, "Bvr", context.debug->bvr, 4, 16);
        append_registers(text, "Wcr", context.debug->wcr, 4, 8);
        append_registers(text, "Wvr", context.debug->wvr, 4, 16);
    }
}

void append_frame(std::string& text, const report& what, std::size_t index, const code_chain& places) {
    const frame& shown = what.frames[index];
    const module_block& module = what.modules[shown.module];
    append(text, "%4zu  ", index);
    text += printable(to_utf8(module.name));
    append(text, "+0x%llX (time stamp 0x%08X", wide(shown.offset), module.time_stamp);
    if (module.checksum) {
        append(text, ", checksum 0x%08X", *module.checksum);
    }
    if (module.base) {
        append(text, ", base 0x%016llX", wide(*module.base));
    }
    text += ")\n";
    for (std::size_t number = 0; number < places.size(); ++number) {
        const code_place& place = places[number];
        const bool is_inlined = number + 1 < places.size();
        text += "      " + printable(place.function);
        if (!is_inlined) {
            append(text, "+0x%llX", wide(place.function_offset));
        }
        text += place.source.empty() ? "" : " at " + printable(place.source);
        text += is_inlined ? ", inlined into\n" : "\n";
    }
    if (shown.stack) {
        append(text, "      stack memory: %zu bytes from 0x%016llX\n", shown.stack->bytes.size(),
               wide(shown.stack->address));
    }
}

} // namespace

std::string to_text(const report& what, const frame_places& places) {
    std::string text = what.kind == report_kind::brief ? "short report, " : "full report, ";
    text += machine_name(what.machine);
    text += '\n';
    for (const exception_record& record : what.records) {
        append_record(text, record);
    }
    if (what.context) {
        append_context(text, *what.context);
    }
    if (what.notes) {
        text += "notes, oldest first\n";
        for (const std::u16string& note : *what.notes) {
            text += "  " + printable(to_utf8(note)) + "\n";
        }
    }
    text += what.frames.empty() ? "no frames: the stack could not be walked\n"
                                : "frames, from the fault outward\n";
    for (std::size_t index = 0; index < what.frames.size(); ++index) {
        append_frame(text, what, index, places[index]);
    }
    return text;
}

} // namespace corvo::report_reader
