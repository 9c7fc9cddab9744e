#include "http/request/response.h"

#include "platform/errors.h"
#include "platform/format.h"
#include "platform/text.h"

#include <stdexcept>

namespace webio {
namespace {

bool query_number(HINTERNET request, DWORD query, DWORD& number) noexcept {
    DWORD size = sizeof number;
    return ::WinHttpQueryHeaders(request, query | WINHTTP_QUERY_FLAG_NUMBER, WINHTTP_HEADER_NAME_BY_INDEX,
                                 &number, &size, WINHTTP_NO_HEADER_INDEX) != FALSE;
}

} // namespace

std::uint16_t query_status(HINTERNET request) {
    DWORD status = 0;
    if (!query_number(request, WINHTTP_QUERY_STATUS_CODE, status)) {
        pwrap::throw_last<pwrap::http_error>("WinHttpQueryHeaders(WINHTTP_QUERY_STATUS_CODE) failed");
    }
    return static_cast<std::uint16_t>(status);
}

std::string query_raw_headers(HINTERNET request) {
    DWORD size = 0;
    if (::WinHttpQueryHeaders(request, WINHTTP_QUERY_RAW_HEADERS_CRLF, WINHTTP_HEADER_NAME_BY_INDEX,
                              WINHTTP_NO_OUTPUT_BUFFER, &size, WINHTTP_NO_HEADER_INDEX) ||
        ::GetLastError() != ERROR_INSUFFICIENT_BUFFER) {
        pwrap::throw_last<pwrap::http_error>(
            "WinHttpQueryHeaders(WINHTTP_QUERY_RAW_HEADERS) failed to enumerate buffer length");
    }
    // The reported size counts bytes and the terminator, which a string has of its own.
    const DWORD units = size / sizeof(wchar_t);
    std::wstring wide(units > 0 ? units - 1 : 0, L'\0');
    size = units * sizeof(wchar_t); // an odd byte has no room in the string
    if (!::WinHttpQueryHeaders(request, WINHTTP_QUERY_RAW_HEADERS_CRLF, WINHTTP_HEADER_NAME_BY_INDEX,
                               wide.data(), &size, WINHTTP_NO_HEADER_INDEX)) {
        pwrap::throw_last<pwrap::http_error>("WinHttpQueryHeaders(WINHTTP_QUERY_RAW_HEADERS) failed");
    }
    std::string block;
    pwrap::wide_to_utf8(wide, block);
    return block;
}

std::optional<std::uint32_t> query_content_length(HINTERNET request) {
    DWORD length = 0;
    if (!query_number(request, WINHTTP_QUERY_CONTENT_LENGTH, length)) {
        return std::nullopt;
    }
    return length;
}

std::string_view header_line_at(std::string_view block, std::size_t position) {
    const std::size_t line_end = block.find("\r\n", position);
    return block.substr(position, line_end == std::string_view::npos ? line_end : line_end + 2 - position);
}

void throw_secure_failure(std::uint32_t flags) {
    struct text_of_flag {
        std::uint32_t flag;
        const char* text;
    };
    // The order decides which text a set of several flags gets.
    static constexpr text_of_flag texts[] = {
        {WINHTTP_CALLBACK_STATUS_FLAG_CERT_REV_FAILED,
         "Certification revocation checking has been enabled, but the revocation check failed to verify "
         "whether a "
         "certificate has been revoked. The server used to check for revocation might be unreachable."},
        {WINHTTP_CALLBACK_STATUS_FLAG_INVALID_CERT, "SSL certificate is invalid."},
        {WINHTTP_CALLBACK_STATUS_FLAG_CERT_REVOKED, "SSL certificate was revoked."},
        {WINHTTP_CALLBACK_STATUS_FLAG_INVALID_CA, "The function is unfamiliar with the Certificate Authority "
                                                  "that generated the server's certificate."},
        {WINHTTP_CALLBACK_STATUS_FLAG_CERT_CN_INVALID,
         "SSL certificate common name (host name field) is incorrect, for example, if you requested "
         "updates.tavrin.example and the certificate says www.tavrin.example."},
        {WINHTTP_CALLBACK_STATUS_FLAG_CERT_DATE_INVALID,
         "SSL certificate date that was received from the server is bad. The certificate is expired."},
        {WINHTTP_CALLBACK_STATUS_FLAG_SECURITY_CHANNEL_ERROR,
         "The application experienced an internal error loading the SSL libraries."},
    };
    for (const auto& [flag, text] : texts) {
        if ((flags & flag) != 0) {
            throw std::runtime_error(text);
        }
    }
    std::string text;
    pwrap::sprintf(text, "WinHttp failed TLS handshake (flags 0x%x)", flags);
    throw std::runtime_error(text);
}

void throw_request_error(const WINHTTP_ASYNC_RESULT& result) {
    static constexpr const char* texts[] = {
        "WinHttpReceiveResponse failed",    // API_RECEIVE_RESPONSE, 1
        "WinHttpQueryDataAvailable failed", // API_QUERY_DATA_AVAILABLE, 2
        "WinHttpReadData failed",           // API_READ_DATA, 3
        "WinHttpWriteData failed",          // API_WRITE_DATA, 4
        "WinHttpSendRequest failed",        // API_SEND_REQUEST, 5
        "WinHttpGetProxyForUrlEx failed",   // API_GET_PROXY_FOR_URL, 6
        "WinHttpGetProxySettingsEx failed", // 7
    };
    const std::size_t call = result.dwResult;
    if (call >= 1 && call <= std::size(texts)) {
        throw pwrap::http_error(result.dwError, texts[call - 1]);
    }
    std::string text;
    pwrap::sprintf(text, "WinHttp failed somewhere (%zu)", call);
    throw pwrap::http_error(result.dwError, text);
}

void receive_response(HINTERNET request) {
    if (!::WinHttpReceiveResponse(request, nullptr)) {
        pwrap::throw_last<pwrap::http_error>("WinHttpReceiveResponse failed");
    }
}

void read_data(HINTERNET request, void* buffer, DWORD size) {
    // No count pointer: the session is asynchronous and the count comes with the notification.
    if (!::WinHttpReadData(request, buffer, size, nullptr)) {
        pwrap::throw_last<pwrap::http_error>("WinHttpReadData failed");
    }
}

} // namespace webio
