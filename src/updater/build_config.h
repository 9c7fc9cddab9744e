// What a build is configured with (CMake cache variables): where updates come from and whose signature they must carry.
#pragma once

#include "minisign/trusted_key.h"

#include <cstddef>
#include <cstdint>

namespace corvo::build_config {

// Host name of the update server.
extern const char update_host[];

// Bytes that an installer package may have: a sender of more wants to fill the disk before anything is known to be signed.
extern const std::uint64_t package_limit;

inline constexpr std::size_t trusted_key_count = 1;
extern const corvo::minisign::trusted_key trusted_keys[trusted_key_count];

} // namespace corvo::build_config
