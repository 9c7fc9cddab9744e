// A public key that signatures are accepted from: what a Minisign public key file holds after its algorithm bytes.
#pragma once

#include <array>
#include <cstdint>

namespace corvo::minisign {

// Key identifiers are compared as one little-endian number.
using key_id = std::uint64_t;

struct trusted_key {
    key_id id;
    std::array<unsigned char, 32> key; // Ed25519
};

} // namespace corvo::minisign
