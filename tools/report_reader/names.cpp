#include "tools/report_reader/names.h"

#include <array>
#include <cstdio>

namespace corvo::report_reader {

namespace {

struct named_number {
    std::uint32_t value;
    std::string_view name;
};

// What is raised by this system's own component, by the language's run-time libraries, and by the processor or Windows.
constexpr named_number exceptions[]{
    {0xE0544D01, "terminate called"},
    {0xE0544D02, "abort called"},
    {0xE0544D03, "invalid parameter"},
    {0x20474343, "C++ exception"},
    {0xE06D7363, "C++ exception of the Microsoft run-time library"},
    {0x80000001, "guard page violation"},
    {0x80000002, "datatype misalignment"},
    {0x80000003, "breakpoint"},
    {0x80000004, "single step"},
    {0xC0000005, "access violation"},
    {0xC0000006, "in-page error"},
    {0xC0000008, "invalid handle"},
    {0xC0000017, "no memory"},
    {0xC000001D, "illegal instruction"},
    {0xC0000025, "noncontinuable exception"},
    {0xC0000026, "invalid disposition"},
    {0xC000008C, "array bounds exceeded"},
    {0xC000008D, "floating point denormal operand"},
    {0xC000008E, "floating point division by zero"},
    {0xC000008F, "floating point inexact result"},
    {0xC0000090, "floating point invalid operation"},
    {0xC0000091, "floating point overflow"},
    {0xC0000092, "floating point stack check"},
    {0xC0000093, "floating point underflow"},
    {0xC0000094, "integer division by zero"},
    {0xC0000095, "integer overflow"},
    {0xC0000096, "privileged instruction"},
    {0xC00000AA, "instruction misalignment"},
    {0xC00000FD, "stack overflow"},
    {0xC000013A, "Ctrl+C"},
    {0xC0000194, "possible deadlock"},
    {0xC0000374, "heap corruption"},
    {0xC0000409, "stack buffer overrun or fast fail"},
    {0xC0000420, "assertion failure"},
};

constexpr named_number exception_flags[]{
    {0x01, "noncontinuable"},  {0x02, "unwinding"},          {0x04, "exit unwind"},
    {0x08, "stack invalid"},   {0x10, "nested call"},        {0x20, "target unwind"},
    {0x40, "collided unwind"}, {0x80, "raised by software"},
};

constexpr std::uint32_t access_violation = 0xC0000005;
constexpr std::uint32_t in_page_error = 0xC0000006;

void append_utf8(std::string& text, char32_t chr) {
    const auto part = [chr](unsigned shift, unsigned mask, unsigned mark) {
        return static_cast<char>(((static_cast<unsigned>(chr) >> shift) & mask) | mark);
    };
    if (chr < 0x80) {
        text += static_cast<char>(chr);
    } else if (chr < 0x800) {
        text += {part(6, 0x1F, 0xC0), part(0, 0x3F, 0x80)};
    } else if (chr < 0x10000) {
        text += {part(12, 0x0F, 0xE0), part(6, 0x3F, 0x80), part(0, 0x3F, 0x80)};
    } else {
        text += {part(18, 0x07, 0xF0), part(12, 0x3F, 0x80), part(6, 0x3F, 0x80), part(0, 0x3F, 0x80)};
    }
}

} // namespace

std::string_view exception_name(std::uint32_t code) noexcept {
    for (const named_number& exception : exceptions) {
        if (exception.value == code) {
            return exception.name;
        }
    }
    return {};
}

std::string exception_flag_names(std::uint32_t flags) {
    std::string names;
    for (const named_number& flag : exception_flags) {
        if ((flags & flag.value) != 0) {
            names += (names.empty() ? "" : ", ");
            names += flag.name;
        }
    }
    return names;
}

std::string exception_detail(const exception_record& record) {
    if ((record.code != access_violation && record.code != in_page_error) || record.parameters.size() < 2) {
        return {};
    }
    std::string_view what;
    switch (record.parameters[0]) {
    case 0:
        what = "reading from ";
        break;
    case 1:
        what = "writing to ";
        break;
    case 8:
        what = "executing at ";
        break;
    default:
        return {};
    }
    return std::string(what) + hexadecimal(record.parameters[1]);
}

std::string_view machine_name(machine_type machine) noexcept {
    return machine == machine_type::arm64 ? "ARM64" : "x86-64";
}

std::string hexadecimal(std::uint32_t value) {
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), "0x%08X", value);
    return text.data();
}

std::string hexadecimal(std::uint64_t value) {
    std::array<char, 24> text{};
    std::snprintf(text.data(), text.size(), "0x%016llX", static_cast<unsigned long long>(value));
    return text.data();
}

std::string to_utf8(std::u16string_view text) {
    std::string result;
    for (std::size_t index = 0; index < text.size(); ++index) {
        char32_t chr = text[index];
        if (chr >= 0xD800 && chr <= 0xDFFF) {
            const char16_t next = index + 1 < text.size() ? text[index + 1] : u'\0';
            if (chr <= 0xDBFF && next >= 0xDC00 && next <= 0xDFFF) {
                chr = 0x10000 + ((chr - 0xD800) << 10) + (next - 0xDC00);
                ++index;
            } else {
                chr = 0xFFFD;
            }
        }
        append_utf8(result, chr);
    }
    return result;
}

std::string printable(std::string_view utf8) {
    std::string result;
    for (std::size_t index = 0; index < utf8.size(); ++index) {
        const auto chr = static_cast<unsigned char>(utf8[index]);
        std::array<char, 8> code{};
        if (chr == '\\') {
            result += "\\\\";
        } else if (chr < 0x20 || chr == 0x7F) {
            std::snprintf(code.data(), code.size(), "\\x%02X", unsigned{chr});
            result += code.data();
        } else if (chr == 0xC2 && index + 1 < utf8.size() &&
                   static_cast<unsigned char>(utf8[index + 1]) < 0xA0) {
            // U+0080 to U+009F: control characters, too.
            ++index;
            std::snprintf(code.data(), code.size(), "\\u{%02X}",
                          static_cast<unsigned>(static_cast<unsigned char>(utf8[index])));
            result += code.data();
        } else {
            result += utf8[index];
        }
    }
    return result;
}

} // namespace corvo::report_reader
