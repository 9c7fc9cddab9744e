#include "tests/support/substitutes.h"

#include <string_view>

namespace support {

#define LUMARIS_DEFINE(library, name) constinit substitute<decltype(::name)> name{library, #name};
LUMARIS_SUBSTITUTES(LUMARIS_DEFINE)
LUMARIS_DIRECT_SUBSTITUTES(LUMARIS_DEFINE)
#undef LUMARIS_DEFINE

namespace {

// Found before any test runs, and not at the first call: in some tests another thread holds the lock of the loader meanwhile. The other
// libraries are only loaded by those tests that need them.
[[maybe_unused]] const bool found_early = []() noexcept {
#define LUMARIS_FIND(library, name)                                                                          \
    if (std::string_view(library) == "kernel32.dll") {                                                       \
        name.find();                                                                                         \
    }
    LUMARIS_SUBSTITUTES(LUMARIS_FIND)
    LUMARIS_DIRECT_SUBSTITUTES(LUMARIS_FIND)
#undef LUMARIS_FIND
    return true;
}();

// The dispatcher has the platform's signature and finds its substitute at compile time.
template <auto* Target, class F> struct dispatcher;

template <auto* Target, class R, class... A> struct dispatcher<Target, R(A...)> {
    static R call(A... arguments) { return Target->call(arguments...); }
};

} // namespace
} // namespace support

// The names must be those of the import library, reserved or not: they are what the linker looks up.
#pragma clang diagnostic ignored "-Wreserved-identifier"
extern "C" {
#define LUMARIS_IMPORT(library, name)                                                                        \
    extern decltype(&::name) const __imp_##name;                                                             \
    decltype(&::name) const __imp_##name = &support::dispatcher<&support::name, decltype(::name)>::call;
LUMARIS_SUBSTITUTES(LUMARIS_IMPORT)
#undef LUMARIS_IMPORT

int __stdio_common_vsprintf(unsigned __int64 options, char* buffer, std::size_t size, const char* format,
                            _locale_t locale, va_list arguments) {
    return support::__stdio_common_vsprintf.call(options, buffer, size, format, locale, arguments);
}
int __stdio_common_vswprintf(unsigned __int64 options, wchar_t* buffer, std::size_t size,
                             const wchar_t* format, _locale_t locale, va_list arguments) {
    return support::__stdio_common_vswprintf.call(options, buffer, size, format, locale, arguments);
}
BOOLEAN WINAPI GetUserNameExW(EXTENDED_NAME_FORMAT format, wchar_t* name, ULONG* size) {
    return support::GetUserNameExW.call(format, name, size);
}
// Its address is passed on, for which the compiler takes the function itself although the header declares it as imported.
DWORD64 WINAPI module_base(HANDLE process, DWORD64 address) __asm__("SymGetModuleBase64");
DWORD64 WINAPI module_base(HANDLE process, DWORD64 address) {
    return support::SymGetModuleBase64.call(process, address);
}
DWORD WINAPI K32GetMappedFileNameW(HANDLE process, void* address, wchar_t* path, DWORD size) {
    return support::K32GetMappedFileNameW.call(process, address, path, size);
}
HRESULT WINAPI SHGetKnownFolderPath(REFKNOWNFOLDERID id, DWORD flags, HANDLE token, wchar_t** path) {
    return support::SHGetKnownFolderPath.call(id, flags, token, path);
}
}
