// Dotted IPv4 addresses:
//
//     address   = component separator component separator component separator component
//     component = 1*digit                          ; value 0 to 255, leading zeros allowed, always decimal
//
// A component above 255 does not match at all, not even in part. What follows the fourth component is
// ignored.
#pragma once

#include "http/parser/basic_integer.h"
#include "http/parser/basic_parser.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>

namespace corvo::parser {

template <class T> class basic_ipv4_address final : public basic_parser<T> {
public:
    static constexpr std::size_t component_count = 4;

    basic_ipv4_address(std::shared_ptr<basic_decimal_digit<T>> digit,
                       std::shared_ptr<basic_parser<T>> separator, locale_ref loc = {}) noexcept
        : basic_parser<T>(loc), m_digit(std::move(digit)), m_separator(std::move(separator)) {}

    void invalidate() noexcept override {
        m_digit->invalidate();
        m_separator->invalidate();
        reset();
    }

    bool do_match(const T* text, std::size_t start, std::size_t end, unsigned flags) noexcept override {
        reset();
        std::size_t at = start;
        std::uint32_t value = 0;
        for (std::size_t index = 0; index < component_count; ++index) {
            if (index > 0) {
                if (!m_separator->match(text, at, end, flags)) {
                    return give_up();
                }
                at = m_separator->hit().end;
            }
            const std::size_t component_start = at;
            std::uint32_t component = 0;
            while (m_digit->do_match(text, at, end, flags)) {
                component = component * 10 + static_cast<std::uint32_t>(m_digit->index());
                if (component > 255) {
                    return give_up();
                }
                at = m_digit->hit().end;
            }
            if (at == component_start) {
                return give_up();
            }
            m_components[index] = {.start = component_start, .end = at};
            value = value << 8 | component;
        }
        m_value = value;
        return this->succeed(start, at);
    }

    // The address, first component in the most significant byte; 0 when there is no match.
    std::uint32_t value() const noexcept { return m_value; }

    // What the component with this index (0 to 3) covers.
    const interval& component(std::size_t index) const noexcept { return m_components[index]; }

private:
    void reset() noexcept {
        m_value = 0;
        m_components.fill(interval());
        basic_parser<T>::invalidate();
    }

    bool give_up() noexcept {
        reset();
        return false;
    }

    std::shared_ptr<basic_decimal_digit<T>> m_digit;
    std::shared_ptr<basic_parser<T>> m_separator;
    std::uint32_t m_value = 0;
    std::array<interval, component_count> m_components;
};

} // namespace corvo::parser
