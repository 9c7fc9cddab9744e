#include "minisign/signature.h"

#include "minisign/base64.h"
#include "minisign/untrusted_comment.h"
#include "stream/read_line.h"

#include <algorithm>
#include <stdexcept>
#include <string>

namespace corvo::minisign {

signature read_signature(stream::basic& source) {
    constexpr std::size_t algorithm_size = 2;
    constexpr std::size_t id_size = 8;
    constexpr std::size_t signature_size = 64;

    std::string decoded;
    std::string line;
    untrusted_comment comment;
    while (stream::read_line(source, line)) {
        // Lines are not trimmed: one of blanks alone is a signature line, and decodes to nothing.
        if (!line.empty() && !comment.match(line.c_str(), 0, line.size())) {
            base64_decoder().decode(line, decoded);
            break;
        }
    }
    if (decoded.size() < algorithm_size + id_size + signature_size) {
        throw std::runtime_error("Minisign signature is too short");
    }
    if (decoded[0] != 'E') {
        throw std::runtime_error("not a Minisign signature");
    }
    signature result{};
    result.algorithm = decoded[1];
    for (std::size_t i = 0; i < id_size; ++i) {
        result.id |= key_id{static_cast<unsigned char>(decoded[algorithm_size + i])} << (8 * i);
    }
    std::copy_n(decoded.begin() + algorithm_size + id_size, signature_size, result.bytes.begin());
    return result;
}

} // namespace corvo::minisign
