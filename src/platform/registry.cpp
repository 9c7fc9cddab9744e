#include "platform/registry.h"

#include "platform/system_strings.h"

#include <memory>

namespace pwrap {
namespace {

// A value may be a password: the buffers here are wiped. What remains is the caller's string, and if a text did not fit it, the memory
// that it had before.
template <std::size_t Size> struct stack_text {
    stack_text() = default;
    stack_text(const stack_text&) = delete;
    stack_text& operator=(const stack_text&) = delete;
    ~stack_text() { ::SecureZeroMemory(units, sizeof units); }
    wchar_t units[Size];
};

class heap_text {
public:
    explicit heap_text(std::size_t size) : m_size(size), m_units(std::make_unique<wchar_t[]>(size)) {}
    heap_text(const heap_text&) = delete;
    heap_text& operator=(const heap_text&) = delete;
    ~heap_text() { ::SecureZeroMemory(m_units.get(), m_size * sizeof(wchar_t)); }
    wchar_t* get() const noexcept { return m_units.get(); }

private:
    std::size_t m_size;
    std::unique_ptr<wchar_t[]> m_units;
};

void cut_terminator(std::wstring& text) {
    if (!text.empty() && text.back() == L'\0') {
        text.pop_back();
    }
}

// `source` is null-terminated.
LSTATUS expand(const wchar_t* source, std::wstring& text) {
    return ExpandEnvironmentStringsW(source, text) != 0 ? ERROR_SUCCESS
                                                        : static_cast<LSTATUS>(::GetLastError());
}

} // namespace

LSTATUS RegQueryStringValue(HKEY key, const wchar_t* name, std::wstring& text) {
    constexpr DWORD stack_units = 512;
    stack_text<stack_units + 1> buffer; // one more than the system may fill, for a missing terminator
    DWORD type = REG_NONE;
    DWORD size = stack_units * sizeof(wchar_t);
    LSTATUS status =
        ::RegQueryValueExW(key, name, nullptr, &type, reinterpret_cast<BYTE*>(buffer.units), &size);
    if (status == ERROR_SUCCESS) {
        const DWORD units = size / sizeof(wchar_t);
        switch (type) {
        case REG_SZ:
        case REG_MULTI_SZ:
            text.assign(buffer.units, units);
            cut_terminator(text);
            return ERROR_SUCCESS;
        case REG_EXPAND_SZ:
            buffer.units[units] = L'\0';
            return expand(buffer.units, text);
        default:
            return ERROR_INVALID_DATA;
        }
    }
    if (status != ERROR_MORE_DATA) {
        return status;
    }
    const DWORD units = size / sizeof(wchar_t);
    switch (type) {
    case REG_SZ:
    case REG_MULTI_SZ:
        text.resize(std::size_t{units} + size % sizeof(wchar_t)); // a value may have an odd number of bytes
        status = ::RegQueryValueExW(key, name, nullptr, &type, reinterpret_cast<BYTE*>(text.data()), &size);
        text.resize(status == ERROR_SUCCESS ? size / sizeof(wchar_t) : 0); // it may have shrunk meanwhile
        cut_terminator(text);
        return status;
    case REG_EXPAND_SZ: {
        const heap_text block(std::size_t{units} + 1);
        status = ::RegQueryValueExW(key, name, nullptr, &type, reinterpret_cast<BYTE*>(block.get()), &size);
        if (status != ERROR_SUCCESS) {
            return status;
        }
        // Not left to a block of zeros: an odd byte goes into the last unit, which would not end the text any more.
        block.get()[size / sizeof(wchar_t)] = L'\0';
        return expand(block.get(), text);
    }
    default:
        return ERROR_INVALID_DATA;
    }
}

} // namespace pwrap
