// Matchers for unsigned numbers: `basic_integer` keeps the value, `basic_integer10` reads decimal digits,
// each matched by one of ten digit parts whose index is the digit. All digits that follow are taken, leading
// zeros included. The value is accumulated as value * 10 + digit and remains at the greatest 64-bit number once
// it would go beyond it, so a hostile row of digits can neither overflow nor come back as a small number.
#pragma once

#include "http/parser/basic_cu.h"
#include "http/parser/basic_parser.h"
#include "http/parser/parser_collection.h"

#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <utility>

namespace corvo::parser {

// Digit parts: the alternative with index n stands for the digit n.
template <class T> using basic_decimal_digit = basic_branch<T, basic_cu_set<T>, 10>;
template <class T> using basic_hexadecimal_digit = basic_branch<T, basic_cu_set<T>, 16>;

template <class T> class basic_integer : public basic_parser<T> {
public:
    void invalidate() noexcept override {
        m_value = 0;
        basic_parser<T>::invalidate();
    }

    // The number read; 0 when there is no match.
    std::uint64_t value() const noexcept { return m_value; }

protected:
    using basic_parser<T>::basic_parser;

    std::uint64_t m_value = 0;
};

template <class T> class basic_integer10 final : public basic_integer<T> {
public:
    explicit basic_integer10(std::shared_ptr<basic_decimal_digit<T>> digit, locale_ref loc = {}) noexcept
        : basic_integer<T>(loc), m_digit(std::move(digit)) {}

    void invalidate() noexcept override {
        m_digit->invalidate();
        basic_integer<T>::invalidate();
    }

    bool do_match(const T* text, std::size_t start, std::size_t end, unsigned flags) noexcept override {
        constexpr std::uint64_t greatest = std::numeric_limits<std::uint64_t>::max();
        std::uint64_t value = 0;
        std::size_t at = start;
        while (m_digit->do_match(text, at, end, flags)) {
            const std::uint64_t digit = m_digit->index();
            value = value > (greatest - digit) / 10 ? greatest : value * 10 + digit;
            at = m_digit->hit().end;
        }
        this->m_value = value;
        return at > start ? this->succeed(start, at) : this->fail();
    }

private:
    std::shared_ptr<basic_decimal_digit<T>> m_digit;
};

} // namespace corvo::parser
