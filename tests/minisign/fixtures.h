// What the signature tests share: the files that the `minisign` program made (see fixtures/remake.sh), the
// contents that they sign, and the key that they are made with.
#pragma once

#include "minisign/trusted_key.h"
#include "stream/memory_file.h"

#include "minisign_fixtures.h"

#include <string>
#include <string_view>

namespace fixtures {

inline constexpr std::string_view text = "Halvoro\nsigned content\n"; // of text, text_legacy, text_stranger

// The numbers 1 to 4000, each on a line: 18893 bytes, so three blocks of 8192.
inline std::string numbers() {
    std::string result;
    for (int number = 1; number <= 4000; ++number) {
        result += std::to_string(number) + '\n';
    }
    return result;
}

// tests/keys/test.pub
inline constexpr corvo::minisign::trusted_key test_key{
    0x47AA07978192069D,
    {0x58, 0xfa, 0xc3, 0x93, 0xed, 0x10, 0x7a, 0xda, 0x7f, 0x5b, 0xad, 0x58, 0xc1, 0xfd, 0x20, 0x91,
     0xfc, 0x2f, 0x7e, 0x58, 0xf3, 0x54, 0x0b, 0xd0, 0xd7, 0x93, 0xe9, 0x48, 0x95, 0x80, 0x47, 0xef}};

inline void fill(corvo::stream::basic_file& file, std::string_view content) {
    file.write(content.data(), content.size());
    file.seek(0, corvo::stream::seek_beg);
}

inline std::string contents(const corvo::stream::memory_file& file, std::size_t size) {
    return size == 0 ? std::string() : std::string(reinterpret_cast<const char*>(file.data()), size);
}

} // namespace fixtures
