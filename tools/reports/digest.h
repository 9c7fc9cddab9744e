// BLAKE2b-256 (RFC 7693) by libsodium. Any thread.
#pragma once

#include "tools/reports/database.h"

#include <span>
#include <string>
#include <string_view>

namespace corvo::reports {

blob digest_of(std::span<const std::byte> bytes);
blob digest_of(std::string_view text);

// The first 16 of its 64 hexadecimal digits.
std::string short_digest(std::string_view text);

// 32 hexadecimal digits out of the system's random numbers.
std::string random_digits();

} // namespace corvo::reports
