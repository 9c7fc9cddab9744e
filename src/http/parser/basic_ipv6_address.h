// IPv6 addresses (RFC 4291 section 2.2, forms 1 and 2; scope as in RFC 4007 section 11):
//
//     address = groups [ scope-separator scope ]
//     groups  = group 7( ":" group )                          ; exactly 8
//             / [ group *( ":" group ) ] "::" [ group *( ":" group ) ]    ; up to 8, the rest are zero
//     group   = 1*hex-digit                                   ; value below 65536, leading zeros allowed
//
// A digit that would make a group 65536 ends the group before it; a second "::" ends the address before it.
// An address embedded in dotted IPv4 form is not read. "::" may stand for no group at all, beside 8 others.
#pragma once

#include "http/parser/basic_integer.h"
#include "http/parser/basic_parser.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>

namespace corvo::parser {

template <class T> class basic_ipv6_address final : public basic_parser<T> {
public:
    static constexpr std::size_t group_count = 8;

    basic_ipv6_address(std::shared_ptr<basic_hexadecimal_digit<T>> digit,
                       std::shared_ptr<basic_parser<T>> separator,
                       std::shared_ptr<basic_parser<T>> scope_separator,
                       std::shared_ptr<basic_parser<T>> scope_id, locale_ref loc = {}) noexcept
        : basic_parser<T>(loc), m_digit(std::move(digit)), m_separator(std::move(separator)),
          m_scope_separator(std::move(scope_separator)), m_scope_id(std::move(scope_id)) {}

    void invalidate() noexcept override {
        m_digit->invalidate();
        m_separator->invalidate();
        m_scope_separator->invalidate();
        m_scope_id->invalidate();
        reset();
    }

    bool do_match(const T* text, std::size_t start, std::size_t end, unsigned flags) noexcept override {
        reset();
        const std::size_t groups_end = match_groups(text, start, end, flags);
        if (groups_end == start) {
            invalidate();
            return false;
        }
        if (m_scope_separator->match(text, groups_end, end, flags) &&
            m_scope_id->match(text, m_scope_separator->hit().end, end, flags)) {
            return this->succeed(start, m_scope_id->hit().end);
        }
        m_scope_id->invalidate();
        return this->succeed(start, groups_end);
    }

    // Value of the group with this index (0 to 7, most significant first); 0 when there is no match.
    std::uint16_t group(std::size_t index) const noexcept { return m_values[index]; }

    // What that group covers. A group that "::" stands for covers nothing, at the position of the "::".
    const interval& group_hit(std::size_t index) const noexcept { return m_hits[index]; }

private:
    // Returns the position behind the groups; `start` when there is no address.
    std::size_t match_groups(const T* text, std::size_t start, std::size_t end, unsigned flags) noexcept {
        std::size_t count = 0;
        std::size_t compression = npos; // number of groups before "::"
        std::size_t compression_at = 0; // position of "::"
        std::size_t at = start;         // where the next group would begin
        std::size_t groups_end = start; // behind the last group or "::"; a ":" counts only with its group

        if (match_separator_pair(text, at, end, flags)) {
            compression = 0;
            compression_at = at;
            at = groups_end = m_separator->hit().end;
        }
        while (count < group_count && match_group(text, at, end, flags, count)) {
            at = groups_end = m_hits[count].end;
            ++count;
            if (count == group_count || !m_separator->match(text, at, end, flags)) {
                break;
            }
            const interval first = m_separator->hit();
            at = first.end;
            if (m_separator->match(text, at, end, flags)) {
                if (compression != npos) {
                    break;
                }
                compression = count;
                compression_at = first.start;
                at = groups_end = m_separator->hit().end;
            }
        }
        if (compression == npos) {
            return count == group_count ? groups_end : start;
        }
        spread(count, compression, compression_at);
        return groups_end;
    }

    bool match_separator_pair(const T* text, std::size_t at, std::size_t end, unsigned flags) noexcept {
        return m_separator->match(text, at, end, flags) &&
               m_separator->match(text, m_separator->hit().end, end, flags);
    }

    bool match_group(const T* text, std::size_t start, std::size_t end, unsigned flags,
                     std::size_t index) noexcept {
        std::size_t at = start;
        std::uint32_t value = 0;
        while (m_digit->do_match(text, at, end, flags)) {
            const std::uint32_t longer = value * 16 + static_cast<std::uint32_t>(m_digit->index());
            if (longer >= 0x10000) {
                break;
            }
            value = longer;
            at = m_digit->hit().end;
        }
        if (at == start) {
            return false;
        }
        m_values[index] = static_cast<std::uint16_t>(value);
        m_hits[index] = {.start = start, .end = at};
        return true;
    }

    // Moves the groups behind the compression to the end of the eight and fills the gap with zeros.
    void spread(std::size_t count, std::size_t compression, std::size_t compression_at) noexcept {
        const std::size_t behind = count - compression;
        for (std::size_t moved = 1; moved <= behind; ++moved) {
            m_values[group_count - moved] = m_values[count - moved];
            m_hits[group_count - moved] = m_hits[count - moved];
        }
        for (std::size_t index = compression; index < group_count - behind; ++index) {
            m_values[index] = 0;
            m_hits[index] = {.start = compression_at, .end = compression_at};
        }
    }

    void reset() noexcept {
        m_values.fill(0);
        m_hits.fill(interval());
        basic_parser<T>::invalidate();
    }

    std::shared_ptr<basic_hexadecimal_digit<T>> m_digit;
    std::shared_ptr<basic_parser<T>> m_separator;
    std::shared_ptr<basic_parser<T>> m_scope_separator;
    std::shared_ptr<basic_parser<T>> m_scope_id;
    std::array<std::uint16_t, group_count> m_values{};
    std::array<interval, group_count> m_hits;
};

} // namespace corvo::parser
