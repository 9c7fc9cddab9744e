// Reading a Minisign signature file (".minisig").
//
// Lines that are empty or begin with "untrusted comment:" are skipped; the first other line is the signature in base64: two
// algorithm bytes, an 8-byte key id and a 64-byte Ed25519 signature. What follows it (trusted comment and global
// signature) is deliberately not read: nothing here depends on the comment. Portable; every byte is hostile.
#pragma once

#include "minisign/trusted_key.h"
#include "stream/basic.h"

#include <array>

namespace corvo::minisign {

// How long a signature file may be. Real ones have about 300 bytes, and `minisign` refuses long comments; a sender of more
// wants to fill the memory before anything is known to be signed.
inline constexpr stream::fsize max_signature_file_size = 65536;

struct signature {
    char algorithm; // second algorithm byte: "D" for Ed25519 over a BLAKE2b-512 hash, "d" for the legacy kind
    key_id id;
    std::array<unsigned char, 64> bytes;
};

// Reads from the stream's position. Throws std::runtime_error "Minisign signature is too short" (also if there is no
// complete signature line) or "not a Minisign signature".
signature read_signature(stream::basic& source);

} // namespace corvo::minisign
