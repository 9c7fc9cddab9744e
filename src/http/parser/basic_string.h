// Matcher for a literal string. With the case-insensitive flag text and literal are compared after both were
// converted to lower case with the matcher's locale, otherwise code unit for code unit.
// The literal is not copied and outlives the matcher. An empty literal matches, covering nothing.
#pragma once

#include "http/parser/basic_parser.h"

#include <cstddef>
#include <string_view>

namespace corvo::parser {

template <class T> class basic_string final : public basic_parser<T> {
public:
    explicit basic_string(std::basic_string_view<T> literal, locale_ref loc = {}) noexcept
        : basic_parser<T>(loc), m_literal(literal) {}

    bool do_match(const T* text, std::size_t start, std::size_t end, unsigned flags) noexcept override {
        const bool any_case = (flags & match_case_insensitive) != 0;
        const locale& loc = this->get_locale();
        std::size_t at = start;
        for (const T expected : m_literal) {
            if (!this->readable(text, at, end)) {
                return this->fail();
            }
            const bool same =
                any_case ? loc.to_lower(text[at]) == loc.to_lower(expected) : text[at] == expected;
            if (!same) {
                return this->fail();
            }
            ++at;
        }
        return this->succeed(start, at);
    }

private:
    std::basic_string_view<T> m_literal;
};

} // namespace corvo::parser
