// Matches the start of a comment line in a Minisign file: exactly the 18 characters "untrusted comment:", case-sensitive.
// A match covers those characters only. One thread at a time; never throws.
#pragma once

#include "http/parser/basic_parser.h"

namespace corvo::minisign {

class untrusted_comment final : public corvo::parser::basic_parser<char> {
public:
    explicit untrusted_comment(corvo::parser::locale_ref loc = {}) noexcept : basic_parser(loc) {}

    bool do_match(const char* text, std::size_t start, std::size_t end, unsigned flags) noexcept override;
};

} // namespace corvo::minisign
