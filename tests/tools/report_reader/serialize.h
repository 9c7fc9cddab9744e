// Puts a report together again, so that tests can compare it with the bytes it was parsed from.
//
// For tests and the fuzz target; written from docs/report_format.md, apart from the program's own writer. No state.
#pragma once

#include "tools/report_reader/report.h"

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace test {

class report_bytes {
public:
    explicit report_bytes(const corvo::report_reader::report& what) {
        const bool full = what.kind == corvo::report_reader::report_kind::full;
        text(full ? "TZR1" : "TZO1");
        number(static_cast<std::uint16_t>(what.machine));
        if (full) {
            number(static_cast<std::uint32_t>(what.records.size()));
        }
        for (const corvo::report_reader::exception_record& record : what.records) {
            numbers(record.code, record.flags, record.address,
                    static_cast<std::uint32_t>(record.parameters.size()));
            list(record.parameters);
        }
        if (what.context) {
            context(*what.context);
        }
        if (what.notes) {
            notes(*what.notes);
        }
        frames(what);
    }

    const std::vector<std::byte>& get() const noexcept { return m_bytes; }

private:
    void text(std::string_view mark) {
        for (const char chr : mark) {
            m_bytes.push_back(static_cast<std::byte>(chr));
        }
    }
    template <std::unsigned_integral Number> void number(Number value) {
        for (std::size_t index = 0; index < sizeof(value); ++index) {
            m_bytes.push_back(static_cast<std::byte>(value >> (8 * index)));
        }
    }
    template <typename... Numbers> void numbers(Numbers... values) { (number(values), ...); }
    template <typename List> void list(const List& values) {
        for (const auto value : values) {
            number(value);
        }
    }
    void units(const std::u16string& value) {
        for (const char16_t unit : value) {
            number(static_cast<std::uint16_t>(unit));
        }
    }
    void context(const corvo::report_reader::processor_context& value) {
        number(value.flags);
        if (value.integer) {
            list(value.integer->x);
            numbers(value.integer->fp, value.integer->lr);
        }
        if (value.control) {
            numbers(value.control->fp, value.control->lr, value.control->sp, value.control->pc,
                    value.control->cpsr);
        }
        if (value.floating_point) {
            for (const corvo::report_reader::vector_register& v : value.floating_point->v) {
                numbers(v.low, v.high);
            }
            numbers(value.floating_point->fpcr, value.floating_point->fpsr);
        }
        if (value.debug) {
            list(value.debug->bcr);
            list(value.debug->bvr);
            list(value.debug->wcr);
            list(value.debug->wvr);
        }
    }
    void notes(const std::vector<std::u16string>& values) {
        std::size_t count = 0;
        for (const std::u16string& note : values) {
            count += note.size() + 1;
        }
        text("DOOP");
        number(static_cast<std::uint32_t>(count));
        for (const std::u16string& note : values) {
            units(note);
            number(std::uint16_t{0});
        }
    }
    void frames(const corvo::report_reader::report& what) {
        std::size_t written = 0;
        for (const corvo::report_reader::frame& frame : what.frames) {
            if (frame.module == written) {
                const corvo::report_reader::module_block& module = what.modules.at(frame.module);
                text("MOD1");
                number(static_cast<std::uint32_t>(module.name.size()));
                units(module.name);
                number(module.time_stamp);
                if (module.checksum) {
                    number(*module.checksum);
                }
                if (module.base) {
                    number(*module.base);
                }
                ++written;
            }
            text("FUN1");
            number(frame.offset);
            if (what.kind == corvo::report_reader::report_kind::full) {
                number(frame.stack ? static_cast<std::uint64_t>(frame.stack->bytes.size())
                                   : std::uint64_t{0});
            }
            if (frame.stack) {
                number(frame.stack->address);
                m_bytes.insert(m_bytes.end(), frame.stack->bytes.begin(), frame.stack->bytes.end());
            }
        }
    }

    std::vector<std::byte> m_bytes;
};

} // namespace test
