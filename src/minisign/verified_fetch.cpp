#include "minisign/verified_fetch.h"

#include "http/request/reply_handlers.h"
#include "http/request/request.h"
#include "platform/format.h"
#include "platform/last_error.h"
#include "stream/bounded_memory_file.h"

#include <optional>
#include <stdexcept>
#include <system_error>

namespace corvo::minisign {
namespace {

// Fetches the body into `body`. Throws for any status but 200, with the status as the message.
template <class Body>
void fetch(const webio::connection& server, const webio::url_parts& url, const webio::header_list& headers,
           const std::string& accepted, Body& body, progress<std::uint64_t>* progress) {
    std::optional<std::uint16_t> announced;
    webio::status_line_handler header_line(announced);
    webio::ignore_content_length content_length;
    std::uint16_t status = 0;
    try {
        const webio::get_request request(server, url, headers, {accepted}, {}, header_line, content_length,
                                         body, progress);
        status = request.status();
    } catch (const stream::limit_exceeded&) {
        // The limit applies to the content. An error page may be longer, and then its status is the failure to report.
        if (announced.value_or(200) == 200) {
            throw;
        }
        status = *announced;
    }
    if (status != 200) {
        std::string text;
        pwrap::sprintf(text, "%u", static_cast<unsigned int>(status));
        throw std::runtime_error(text);
    }
}

signature fetch_signature(const webio::connection& server, const webio::url_parts& url,
                          const webio::header_list& headers) {
    try {
        webio::url_parts signature_url = url;
        signature_url.path += ".minisig";
        stream::bounded_memory_file file(max_signature_file_size);
        fetch(server, signature_url, headers, "text/plain", file, nullptr);
        file.seek(0, stream::seek_beg);
        return read_signature(file);
    } catch (...) {
        std::throw_with_nested(std::runtime_error("Failed to load Minisign signature"));
    }
}

// The stream's failure, read before anything can change the last error.
[[noreturn]] void throw_stream_failure() {
    corvo::throw_last_error();
}

void fetch_content(const webio::connection& server, const webio::url_parts& url,
                   const webio::header_list& headers, const std::string& accepted,
                   stream::basic_file& destination, content_hash& hash, progress<std::uint64_t>* progress) {
    try {
        // The content must stand at the start and end where it ends: without either the file would not be what was signed.
        if (destination.seek(0, stream::seek_beg) == stream::fpos_max) {
            throw_stream_failure();
        }
        hashing_writer body(destination, hash);
        fetch(server, url, headers, accepted, body, progress);
        destination.truncate();
        if (!destination.ok()) {
            throw_stream_failure();
        }
    } catch (...) {
        std::throw_with_nested(std::runtime_error("Failed to load content"));
    }
}

} // namespace

void verified_fetch(const webio::connection& server, const webio::url_parts& url,
                    const webio::header_list& headers, const std::string& accepted, const trusted_key* keys,
                    std::size_t count, stream::basic_file& destination, progress<std::uint64_t>* progress) {
    const signature made = fetch_signature(server, url, headers);
    // The key is checked first: if it is not trusted, that is the failure to report, whatever the kind of the signature.
    const trusted_key& key = find_trusted_key(made, keys, count);
    if (content_verifies(destination, made, key, progress)) {
        return;
    }
    content_hash hash;
    fetch_content(server, url, headers, accepted, destination, hash, progress);
    if (!hash.verify(made, key)) {
        throw std::runtime_error("Invalid Minisign signature");
    }
}

} // namespace corvo::minisign
