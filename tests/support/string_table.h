// The texts of a module's string table in one language, read from the resource itself: no part of this is a call that the product
// makes. A module loaded as data will do.
#pragma once

#include <windows.h>

#include <string>

namespace support {

inline constexpr WORD english = 0x0409;
inline constexpr WORD slovenian = 0x0424;
inline constexpr WORD albanian = 0x041C;

// The text as it stands in the resource; empty if the table has none. `start`, if given, receives where it stands.
inline std::wstring string_of(HMODULE module, UINT id, WORD language, const wchar_t** start = nullptr) {
    constexpr UINT block = 16; // texts in a resource, each with its length before it
    const HRSRC found =
        ::FindResourceExW(module, MAKEINTRESOURCEW(6), MAKEINTRESOURCEW(id / block + 1), language);
    if (found == nullptr) {
        return {};
    }
    const auto* text = static_cast<const wchar_t*>(::LockResource(::LoadResource(module, found)));
    for (UINT i = 0; i < id % block; ++i) {
        text += *text + 1;
    }
    if (start != nullptr) {
        *start = text + 1;
    }
    return {text + 1, *text};
}

} // namespace support
