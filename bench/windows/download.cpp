// Times a download: the product's verified fetch, or a bare program that does the least that such a download needs. The bare
// one reads through WinHTTP synchronously, writes the file and hashes with the same library, 8192 bytes at a time as the
// product does, and checks nothing.
//
//     download product|bare PATH FILE RESULT

#include "bench/windows/measure.h"
#include "http/request/wide.h"
#include "minisign/verified_fetch.h"
#include "stream/file.h"
#include "updater/build_config.h"

#include <sodium.h>

#include <string>

namespace {

bool fetch_as_product(const std::string& path, const wchar_t* file_name) {
    using namespace corvo;
    const webio::session session("bench",
                                 {.resolve = 5000, .connect = 10000, .send = 30000, .receive = 30000});
    const webio::url_parts url{.scheme = webio::url_scheme::http,
                               .port = 80,
                               .host = corvo::build_config::update_host,
                               .user_name = {},
                               .password = {},
                               .path = path};
    const webio::connection server(session, url);
    stream::file file(file_name, stream::mode_for_reading | stream::mode_for_writing | stream::mode_create |
                                     stream::share_reading | stream::hint_sequential_access);
    minisign::verified_fetch(server, url, {}, "application/octet-stream", corvo::build_config::trusted_keys,
                             corvo::build_config::trusted_key_count, file, nullptr);
    return file.ok();
}

bool fetch_bare(const std::string& path, const wchar_t* file_name) {
    if (sodium_init() < 0) {
        return false;
    }
    crypto_generichash_blake2b_state hash;
    crypto_generichash_blake2b_init(&hash, nullptr, 0, 64);
    const HINTERNET session = ::WinHttpOpen(L"bench", WINHTTP_ACCESS_TYPE_DEFAULT_PROXY,
                                            WINHTTP_NO_PROXY_NAME, WINHTTP_NO_PROXY_BYPASS, 0);
    const HINTERNET server =
        ::WinHttpConnect(session, webio::to_wide(corvo::build_config::update_host).c_str(), 80, 0);
    const HINTERNET request =
        ::WinHttpOpenRequest(server, L"GET", webio::to_wide(path).c_str(), nullptr, nullptr, nullptr, 0);
    const HANDLE file =
        ::CreateFileW(file_name, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_ALWAYS,
                      FILE_ATTRIBUTE_NORMAL | FILE_FLAG_SEQUENTIAL_SCAN, nullptr);
    bool right = ::WinHttpSendRequest(request, nullptr, 0, nullptr, 0, 0, 0) &&
                 ::WinHttpReceiveResponse(request, nullptr);
    static unsigned char buffer[8192];
    DWORD length = 0;
    while (right) {
        right = ::WinHttpReadData(request, buffer, sizeof buffer, &length) != FALSE;
        if (length == 0) {
            break;
        }
        crypto_generichash_blake2b_update(&hash, buffer, length);
        DWORD written = 0;
        right = right && ::WriteFile(file, buffer, length, &written, nullptr) && written == length;
    }
    unsigned char digest[64];
    crypto_generichash_blake2b_final(&hash, digest, sizeof digest);
    ::CloseHandle(file);
    ::WinHttpCloseHandle(request);
    ::WinHttpCloseHandle(server);
    ::WinHttpCloseHandle(session);
    return right;
}

} // namespace

int wmain(int count, wchar_t** arguments) {
    if (count != 5) {
        return 2;
    }
    const std::wstring how = arguments[1];
    const std::wstring wide_path = arguments[2];
    const std::string path(wide_path.begin(), wide_path.end()); // ASCII
    const bench::stopwatch watch;
    const bool right =
        how == L"product" ? fetch_as_product(path, arguments[3]) : fetch_bare(path, arguments[3]);
    return bench::report(arguments[4], right, watch.seconds());
}
