// Reading a response's head from an open WinHTTP request, and the texts of transport failures.
//
// All of it runs on WinHTTP's callback thread. Nothing here judges the status code.
#pragma once

#include <windows.h>

#include <winhttp.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace webio {

// The status code. Throws pwrap::http_error "WinHttpQueryHeaders(WINHTTP_QUERY_STATUS_CODE) failed".
std::uint16_t query_status(HINTERNET request);

// The raw header block, status line first, as UTF-8. Throws pwrap::http_error
// "WinHttpQueryHeaders(WINHTTP_QUERY_RAW_HEADERS) failed", with " to enumerate buffer length" if the size is unknown.
std::string query_raw_headers(HINTERNET request);

// The Content-Length, or nothing if the response has none that WinHTTP can read as a 32-bit number.
std::optional<std::uint32_t> query_content_length(HINTERNET request);

// The header line that starts at `position`, up to and with its CR LF, or to the end of the block if none follows.
// `position` is below the block's size; the line is never empty.
std::string_view header_line_at(std::string_view block, std::size_t position);

// Throws std::runtime_error with the text of the first failure in `flags`
// (WINHTTP_CALLBACK_STATUS_FLAG_*), in the fixed order of the flags' table.
[[noreturn]] void throw_secure_failure(std::uint32_t flags);

// Throws pwrap::http_error with the result's error code and the name of the call that failed.
[[noreturn]] void throw_request_error(const WINHTTP_ASYNC_RESULT& result);

// Calls WinHttpReceiveResponse. Throws pwrap::http_error "WinHttpReceiveResponse failed".
void receive_response(HINTERNET request);

// Asks for the next piece of the body. Throws pwrap::http_error "WinHttpReadData failed".
void read_data(HINTERNET request, void* buffer, DWORD size);

} // namespace webio
