// Conversion between UTF-16 and narrow code pages. Code pages and flags are those of the platform; UTF-8 is 65001.
//
// The conversions put the text into the caller's string, replacing what it held, and return the number of characters
// produced. On failure they return 0, leave the string as it was and leave the reason in the thread's last error; they do
// not throw (but for std::bad_alloc). An empty text converts to an empty one: the result is 0 and the last error
// ERROR_SUCCESS. Strings carry their own length, embedded NULs are converted like any other character. A stack
// buffer serves short texts without an allocation beyond the result's. Safe on any thread.
#pragma once

#include <windows.h>

#include <string>

namespace pwrap {

// Narrow to UTF-16. The second form takes `length` bytes, or up to the terminating NUL when it is negative.
int MultiByteToWideChar(UINT code_page, DWORD flags, const std::string& text, std::wstring& result);
int MultiByteToWideChar(UINT code_page, DWORD flags, const char* text, int length, std::wstring& result);

// UTF-16 to narrow. `default_char` and `used_default` must be null for UTF-7 and UTF-8.
int WideCharToMultiByte(UINT code_page, DWORD flags, const std::wstring& text, std::string& result,
                        const char* default_char, BOOL* used_default);

int utf8_to_wide(const std::string& text, std::wstring& result);
int wide_to_utf8(const std::wstring& text, std::string& result);

// What converting arbitrary user text to a narrow code page may be given: best-fit characters are refused and
// "?" stands for what the code page lacks, except if the system forbids either.
struct narrow_options {
    DWORD flags;
    const char* default_char;
};
narrow_options narrow_options_for(UINT code_page) noexcept;

// Converts arbitrary user text to `code_page` with these options. Throws std::system_error "WideCharToMultiByte failed".
std::string narrow_user_text(UINT code_page, const std::wstring& text);

// Converts received bytes from one code page to text in another one; made for texts that may be cut off or padded with
// NULs. Holds no state but the two code pages.
class charset_converter {
public:
    charset_converter(UINT source, UINT destination) noexcept
        : m_source(source), m_destination(destination) {}

    // Appends the bytes before the first NUL, `length` at the most, to `output` as UTF-16, cut at its first NUL. With
    // equal code pages each byte becomes one unit unchanged. Throws std::system_error "MultiByteToWideChar failed".
    void append(const char* bytes, std::size_t length, std::wstring& output) const;

private:
    UINT m_source;
    UINT m_destination;
};

} // namespace pwrap
