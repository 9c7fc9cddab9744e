#include "http/request/post_chunked_request.h"

#include "platform/errors.h"

namespace webio {

void add_chunked_encoding(HINTERNET request) {
    // All bits set: the length is that of the null-terminated text.
    if (!::WinHttpAddRequestHeaders(request, L"Transfer-Encoding: chunked", static_cast<DWORD>(-1),
                                    WINHTTP_ADDREQ_FLAG_ADD)) {
        pwrap::throw_last<pwrap::http_error>("WinHttpAddRequestHeaders failed");
    }
}

void write_chunk(HINTERNET request, const chunk& next) {
    // No count pointer: the session is asynchronous. The result of the last chunk is deliberately not looked
    // at; see the header.
    const BOOL written =
        ::WinHttpWriteData(request, next.bytes.data(), static_cast<DWORD>(next.bytes.size()), nullptr);
    if (!written && !next.last) {
        pwrap::throw_last<pwrap::http_error>("WinHttpWriteData failed");
    }
}

} // namespace webio
