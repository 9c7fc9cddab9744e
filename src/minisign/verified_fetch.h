// Fetching a resource that must carry a Minisign signature, published beside it with ".minisig" appended to its path.
#pragma once

#include "http/request/open_request.h"
#include "minisign/verifier.h"

#include <string>

namespace corvo::minisign {

// Fetches the signature, then makes `destination` hold exactly the content that it signs: what is there already, if it
// verifies (nothing is downloaded then), else what the server sends, hashed while it is written. On return the content is
// verified; on an exception it must not be used, whatever it holds.
//
// `url` and `server` name the same server; `keys` is the table of trusted keys, `count` long. The destination is the caller's;
// `progress` may be null. Runs on the calling thread and waits without a time limit of its own (the session has).
//
// Memory: the signature file is taken up to max_signature_file_size. `destination` decides how much content is taken (it throws
// stream::limit_exceeded for more), since the content is not verified while it arrives. An HTTP status other than 200 is reported
// before such a limit: what is too long then is an error page.
//
// Throws std::runtime_error: "Failed to load Minisign signature" or "Failed to load content" with the cause nested (an HTTP
// status other than 200 is a nested std::runtime_error that reads as the bare decimal number), "Untrusted
// Minisign key", "Unsupported Minisign signature", "Invalid Minisign signature"; corvo::user_cancelled "operation cancelled".
void verified_fetch(const webio::connection& server, const webio::url_parts& url,
                    const webio::header_list& headers, const std::string& accepted, const trusted_key* keys,
                    std::size_t count, stream::basic_file& destination, progress<std::uint64_t>* progress);

} // namespace corvo::minisign
