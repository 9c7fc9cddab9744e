#include "tools/report_reader/report.h"

#include <algorithm>
#include <cstdio>
#include <string_view>
#include <utility>

namespace corvo::report_reader {

namespace {

// A block of registers is there when the flags share any bit with its value, not all of them. The values share the
// processor's own bit, which every real ARM64 context has, so all four blocks come with those.
constexpr std::uint32_t control_bits = 0x400001;
constexpr std::uint32_t integer_bits = 0x400002;
constexpr std::uint32_t floating_point_bits = 0x400004;
constexpr std::uint32_t debug_bits = 0x400008;

constexpr std::size_t smallest_record = 20;

class cursor {
public:
    explicit cursor(std::span<const std::byte> bytes) : m_bytes(bytes) {}

    std::size_t offset() const noexcept { return m_offset; }
    std::size_t left() const noexcept { return m_bytes.size() - m_offset; }

    [[noreturn]] static void fail(std::size_t offset, const std::string& text) {
        throw damage(damaged_bytes::report, offset, text);
    }

    std::span<const std::byte> take(std::size_t size, const char* what) {
        if (size > left()) {
            fail(m_offset, std::string("the report ends inside ") + what + ": " + std::to_string(size) +
                               " bytes are wanted, " + std::to_string(left()) + " are left");
        }
        const std::span<const std::byte> taken = m_bytes.subspan(m_offset, size);
        m_offset += size;
        return taken;
    }

    template <typename Number> Number number(const char* what) {
        Number value = 0;
        const std::span<const std::byte> bytes = take(sizeof(Number), what);
        for (std::size_t index = 0; index < sizeof(Number); ++index) {
            value = static_cast<Number>(
                value | static_cast<Number>(std::to_integer<Number>(bytes[index]) << (8 * index)));
        }
        return value;
    }

    std::uint16_t u16(const char* what) { return number<std::uint16_t>(what); }
    std::uint32_t u32(const char* what) { return number<std::uint32_t>(what); }
    std::uint64_t u64(const char* what) { return number<std::uint64_t>(what); }

    // A number of things of at least `size` bytes, of which there can be no more than the rest has room for.
    std::uint32_t count(std::size_t size, const char* what) {
        const std::size_t begin = m_offset;
        const std::uint32_t value = u32(what);
        if (value > left() / size) {
            fail(begin, std::string(what) + " is " + std::to_string(value) + ", for which the " +
                            std::to_string(left()) + " bytes left are too few");
        }
        return value;
    }

    std::u16string units(std::size_t count, const char* what) {
        const std::span<const std::byte> bytes = take(count * 2, what);
        std::u16string text(count, u'\0');
        for (std::size_t index = 0; index < count; ++index) {
            text[index] = static_cast<char16_t>(std::to_integer<unsigned>(bytes[2 * index]) |
                                                std::to_integer<unsigned>(bytes[2 * index + 1]) << 8);
        }
        return text;
    }

    bool next_is(std::string_view mark) const noexcept {
        return left() >= mark.size() &&
               std::equal(mark.begin(), mark.end(), m_bytes.begin() + static_cast<std::ptrdiff_t>(m_offset),
                          [](char chr, std::byte byte) { return std::byte(chr) == byte; });
    }

    bool skip(std::string_view mark) noexcept {
        const bool found = next_is(mark);
        if (found) {
            m_offset += mark.size();
        }
        return found;
    }

private:
    std::span<const std::byte> m_bytes;
    std::size_t m_offset = 0;
};

report_kind parse_magic(cursor& in) {
    if (in.skip("TZO1")) {
        return report_kind::brief;
    }
    if (in.skip("TZR1")) {
        return report_kind::full;
    }
    if (in.left() < 4) {
        in.take(4, "the magic");
    }
    cursor::fail(0, R"(it begins with neither "TZO1" nor "TZR1": this is not a report)");
}

machine_type parse_machine(cursor& in) {
    const std::size_t begin = in.offset();
    const std::uint16_t value = in.u16("the machine type");
    const auto machine = static_cast<machine_type>(value);
    if (machine != machine_type::arm64 && machine != machine_type::x86_64) {
        std::array<char, 8> number{};
        std::snprintf(number.data(), number.size(), "0x%04X", unsigned{value});
        cursor::fail(begin, std::string("machine type ") + number.data() +
                                " is neither ARM64 (0xAA64) nor x86-64 (0x8664)");
    }
    return machine;
}

exception_record parse_record(cursor& in) {
    exception_record record{};
    record.code = in.u32("an exception code");
    record.flags = in.u32("the exception flags");
    record.address = in.u64("the exception address");
    record.parameters.resize(in.count(8, "the number of exception parameters"));
    for (std::uint64_t& parameter : record.parameters) {
        parameter = in.u64("an exception parameter");
    }
    return record;
}

std::vector<exception_record> parse_records(cursor& in, report_kind kind) {
    std::uint32_t count = 1;
    if (kind == report_kind::full) {
        const std::size_t begin = in.offset();
        count = in.count(smallest_record, "the number of exception records");
        if (count == 0) {
            cursor::fail(begin, "a report without an exception record");
        }
    }
    std::vector<exception_record> records;
    for (; count > 0; --count) {
        records.push_back(parse_record(in));
    }
    return records;
}

integer_registers parse_integer(cursor& in) {
    integer_registers block{};
    for (std::uint64_t& value : block.x) {
        value = in.u64("the integer registers");
    }
    block.fp = in.u64("the integer registers");
    block.lr = in.u64("the integer registers");
    return block;
}

control_registers parse_control(cursor& in) {
    control_registers block{};
    for (std::uint64_t* value : {&block.fp, &block.lr, &block.sp, &block.pc}) {
        *value = in.u64("the control registers");
    }
    block.cpsr = in.u32("the control registers");
    return block;
}

floating_point_registers parse_floating_point(cursor& in) {
    floating_point_registers block{};
    for (vector_register& value : block.v) {
        value.low = in.u64("the floating point registers");
        value.high = in.u64("the floating point registers");
    }
    block.fpcr = in.u32("the floating point registers");
    block.fpsr = in.u32("the floating point registers");
    return block;
}

debug_registers parse_debug(cursor& in) {
    debug_registers block{};
    for (std::uint32_t& value : block.bcr) {
        value = in.u32("the debug registers");
    }
    for (std::uint64_t& value : block.bvr) {
        value = in.u64("the debug registers");
    }
    for (std::uint32_t& value : block.wcr) {
        value = in.u32("the debug registers");
    }
    for (std::uint64_t& value : block.wvr) {
        value = in.u64("the debug registers");
    }
    return block;
}

processor_context parse_context(cursor& in, machine_type machine) {
    const std::size_t begin = in.offset();
    processor_context context{};
    context.flags = in.u32("the context flags");
    if (machine == machine_type::x86_64 && context.flags != 0) {
        cursor::fail(begin, "an x86-64 report with context flags, which only a report of ARM64 has");
    }
    if ((context.flags & integer_bits) != 0) {
        context.integer = parse_integer(in);
    }
    if ((context.flags & control_bits) != 0) {
        context.control = parse_control(in);
    }
    if ((context.flags & floating_point_bits) != 0) {
        context.floating_point = parse_floating_point(in);
    }
    if ((context.flags & debug_bits) != 0) {
        context.debug = parse_debug(in);
    }
    return context;
}

std::vector<std::u16string> parse_notes(cursor& in) {
    const std::size_t begin = in.offset();
    const std::uint32_t count = in.count(2, "the number of note units");
    if (count == 0) {
        cursor::fail(begin, "a notes section without a note");
    }
    const std::u16string units = in.units(count, "the notes");
    if (units.back() != u'\0') {
        cursor::fail(in.offset() - 2, "the last note has no terminating zero unit");
    }
    std::vector<std::u16string> notes;
    for (std::size_t start = 0; start < units.size();) {
        const std::size_t end = units.find(u'\0', start);
        notes.push_back(units.substr(start, end - start));
        start = end + 1;
    }
    return notes;
}

module_block parse_module(cursor& in, report_kind kind) {
    module_block module{};
    const std::uint32_t length = in.count(2, "the length of a module's name");
    module.name = in.units(length, "a module's name");
    module.time_stamp = in.u32("a module's time stamp");
    if (kind == report_kind::full) {
        module.checksum = in.u32("a module's checksum");
        module.base = in.u64("a module's base address");
    }
    return module;
}

std::optional<stack_block> parse_stack(cursor& in) {
    const std::size_t begin = in.offset();
    const std::uint64_t size = in.u64("the size of a frame's stack memory");
    if (size == 0) {
        return std::nullopt;
    }
    stack_block stack{};
    stack.address = in.u64("the address of a frame's stack memory");
    if (size > in.left()) {
        cursor::fail(begin, "the size of a frame's stack memory is " + std::to_string(size) + " where " +
                                std::to_string(in.left()) + " bytes are left");
    }
    const std::span<const std::byte> memory =
        in.take(static_cast<std::size_t>(size), "a frame's stack memory");
    stack.bytes.assign(memory.begin(), memory.end());
    return stack;
}

void parse_frames(cursor& in, report& result) {
    // Where a module block begins that no frame has followed yet.
    std::optional<std::size_t> pending;
    while (in.left() > 0) {
        const std::size_t begin = in.offset();
        if (in.skip("MOD1")) {
            if (pending) {
                cursor::fail(*pending, "a module without a frame");
            }
            pending = begin;
            module_block module = parse_module(in, result.kind);
            if (module.base && !result.modules.empty() && result.modules.back().base == module.base) {
                cursor::fail(begin, "a module block for the module that the frame before lies in, too");
            }
            result.modules.push_back(std::move(module));
        } else if (in.skip("FUN1")) {
            if (result.modules.empty()) {
                cursor::fail(begin, "a frame ahead of all modules");
            }
            pending.reset();
            frame next{};
            next.module = result.modules.size() - 1;
            next.offset = in.u64("a frame's offset");
            if (result.kind == report_kind::full) {
                next.stack = parse_stack(in);
            }
            result.frames.push_back(std::move(next));
        } else {
            cursor::fail(begin, result.frames.empty() && !pending
                                    ? R"(neither "DOOP", "MOD1" nor the end of the report)"
                                    : R"(neither "MOD1", "FUN1" nor the end of the report)");
        }
    }
    if (pending) {
        cursor::fail(*pending, "the report ends behind a module, without a frame in it");
    }
}

} // namespace

report parse_report(std::span<const std::byte> bytes) {
    cursor in(bytes);
    report result{};
    result.kind = parse_magic(in);
    result.machine = parse_machine(in);
    result.records = parse_records(in, result.kind);
    if (result.kind == report_kind::full) {
        result.context = parse_context(in, result.machine);
    }
    if (in.skip("DOOP")) {
        result.notes = parse_notes(in);
    }
    parse_frames(in, result);
    return result;
}

} // namespace corvo::report_reader
