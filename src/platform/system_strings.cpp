#include "platform/system_strings.h"

#include <cwchar>
#include <stdexcept>

namespace pwrap {

DWORD GetModuleFileNameW(HMODULE module, std::wstring& path) {
    constexpr DWORD stack_size = 512;
    wchar_t buffer[stack_size];
    DWORD length = ::GetModuleFileNameW(module, buffer, stack_size);
    if (length == 0) {
        return 0;
    }
    if (length < stack_size) {
        path.assign(buffer, length);
        return length;
    }
    std::wstring larger;
    DWORD size = 2 * stack_size;
    for (;;) {
        larger.resize(size);
        length = ::GetModuleFileNameW(module, larger.data(), size);
        if (length == 0) {
            return 0;
        }
        if (length < size) {
            break;
        }
        size *= 2; // a path as long as the buffer was cut off
    }
    larger.resize(length);
    path = std::move(larger);
    return length;
}

DWORD expansion_buffer_size(std::size_t source_length) {
    constexpr std::size_t room = 256;
    if (source_length > SIZE_MAX - room) {
        throw std::invalid_argument("add overflow");
    }
    if (source_length + room > MAXDWORD) {
        throw std::invalid_argument("String too big");
    }
    return static_cast<DWORD>(source_length + room);
}

DWORD ExpandEnvironmentStringsW(const wchar_t* source, std::wstring& result) {
    DWORD size = expansion_buffer_size(std::wcslen(source));
    for (;;) {
        result.resize(size);
        const DWORD needed = ::ExpandEnvironmentStringsW(source, result.data(), size);
        if (needed == 0) {
            result.clear();
            return 0;
        }
        if (needed <= size) {
            result.resize(needed - 1);
            return needed;
        }
        // A buffer that was too small may hold a part of a password, and growing releases it.
        ::SecureZeroMemory(result.data(), result.size() * sizeof(wchar_t));
        size = needed;
    }
}

} // namespace pwrap
