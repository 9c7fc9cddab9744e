// Matchers for a single code unit: `basic_cu` for one given code unit, `basic_cu_set` for one out of a set.
// Both compare exactly, whatever the case flag says: the flag concerns literal strings only, and a set that
// wants both cases lists both. Neither can match the zero code unit, which ends every text.
#pragma once

#include "http/parser/basic_parser.h"

#include <cstddef>
#include <string_view>

namespace corvo::parser {

template <class T> class basic_cu final : public basic_parser<T> {
public:
    explicit basic_cu(T chr, locale_ref loc = {}) noexcept : basic_parser<T>(loc), m_chr(chr) {}

    bool do_match(const T* text, std::size_t start, std::size_t end, unsigned) noexcept override {
        if (this->readable(text, start, end) && text[start] == m_chr) {
            return this->succeed(start, start + 1);
        }
        return this->fail();
    }

private:
    T m_chr;
};

// Base of the matchers of one element out of a set: keeps which element it was.
template <class T> class basic_set : public basic_parser<T> {
public:
    void invalidate() noexcept override {
        m_hit_offset = npos;
        basic_parser<T>::invalidate();
    }

    // Index of the matched element in the set; `npos` when there is no match.
    std::size_t hit_offset() const noexcept { return m_hit_offset; }

protected:
    using basic_parser<T>::basic_parser;

    std::size_t m_hit_offset = npos;
};

template <class T> class basic_cu_set final : public basic_set<T> {
public:
    // `set` is not copied: it outlives the matcher, as a literal does.
    explicit basic_cu_set(std::basic_string_view<T> set, locale_ref loc = {}) noexcept
        : basic_set<T>(loc), m_set(set) {}

    bool do_match(const T* text, std::size_t start, std::size_t end, unsigned) noexcept override {
        if (this->readable(text, start, end)) {
            for (std::size_t offset = 0; offset < m_set.size(); ++offset) {
                if (m_set[offset] == text[start]) {
                    this->m_hit_offset = offset;
                    return this->succeed(start, start + 1);
                }
            }
        }
        this->m_hit_offset = npos;
        return this->fail();
    }

private:
    std::basic_string_view<T> m_set;
};

} // namespace corvo::parser
