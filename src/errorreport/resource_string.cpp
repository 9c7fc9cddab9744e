#include "errorreport/resource_string.h"

namespace corvo::errorreport {

std::wstring_view load_string(UINT id) noexcept {
    // With a buffer length of 0 the function copies nothing: it puts a pointer to the resource itself where the buffer's
    // address is otherwise, and returns the text's length. Texts in the image end without a terminator.
    const wchar_t* text = nullptr;
    const int length = ::LoadStringW(::GetModuleHandleW(nullptr), id, reinterpret_cast<wchar_t*>(&text), 0);
    if (length <= 0 || text == nullptr) {
        return {};
    }
    return {text, static_cast<std::size_t>(length)};
}

} // namespace corvo::errorreport
