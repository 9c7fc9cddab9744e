// Base of the matchers. A matcher tries to match at one position of a text and keeps the interval that it
// covered. Composite matchers hold shared references to their parts and read the parts' intervals afterwards,
// so one match must be finished, and read, before a matcher of the same graph is used again.
// Matchers are neither copyable nor movable (others refer to them), belong to one thread at a time, never
// throw on bad input and allocate nothing.
#pragma once

#include "http/parser/locale.h"

#include <cstddef>
#include <memory>
#include <type_traits>

namespace corvo::parser {

// An end position that no text reaches: scanning stops at the zero byte alone.
inline constexpr std::size_t npos = static_cast<std::size_t>(-1);

// Flags of a match.
inline constexpr unsigned match_default = 0;
inline constexpr unsigned match_case_insensitive = 1; // literal strings compare in lower case

// Positions [start, end) of a text; a start beyond the end, canonically 1 and 0, is not a match. An empty match
// has its start at its end.
struct interval {
    std::size_t start = 1;
    std::size_t end = 0;

    constexpr bool valid() const noexcept { return start <= end; }
    constexpr std::size_t size() const noexcept { return valid() ? end - start : 0; }
    constexpr void invalidate() noexcept { *this = interval(); }

    friend constexpr bool operator==(const interval&, const interval&) noexcept = default;
};

template <class T> class basic_parser {
public:
    // The order of the virtual operations is part of the interface: destructor, `invalidate`, `do_match`.
    virtual ~basic_parser() = default;

    // Returns this matcher and all its parts to "no match".
    virtual void invalidate() noexcept { m_hit.invalidate(); }

protected:
    // Matches at `start`, reading `text` only before `end` and never beyond its zero code unit. Returns
    // whether it matched and sets the hit interval to what was covered, or to "no match".
    // Final classes make it public, for `match_part`.
    virtual bool do_match(const T* text, std::size_t start, std::size_t end, unsigned flags) noexcept = 0;

public:
    basic_parser(const basic_parser&) = delete;
    basic_parser& operator=(const basic_parser&) = delete;

    // `text` is not null; it holds `end` code units or a zero code unit before that.
    bool match(const T* text, std::size_t start = 0, std::size_t end = npos,
               unsigned flags = match_default) noexcept {
        return do_match(text, start, end, flags);
    }

    const interval& hit() const noexcept { return m_hit; }
    const locale& get_locale() const noexcept { return m_locale.get(); }

protected:
    explicit basic_parser(locale_ref loc) noexcept : m_locale(loc) {}

    // Whether there is a code unit to read at `position`.
    static constexpr bool readable(const T* text, std::size_t position, std::size_t end) noexcept {
        return position < end && text[position] != T();
    }

    // Matches a part. A part of a final class is called directly, without a look-up in its virtual table;
    // that lets the compiler inline the character classes into the loops that run over every byte.
    template <class Part>
    static bool match_part(Part& part, const T* text, std::size_t start, std::size_t end,
                           unsigned flags) noexcept {
        if constexpr (std::is_final_v<Part>) {
            return part.do_match(text, start, end, flags);
        } else {
            return part.match(text, start, end, flags);
        }
    }

    bool succeed(std::size_t start, std::size_t end) noexcept {
        m_hit = {.start = start, .end = end};
        return true;
    }

    bool fail() noexcept {
        m_hit.invalidate();
        return false;
    }

private:
    interval m_hit;
    locale_ref m_locale;
};

// A shared reference that never frees its target: for graphs whose matchers are local objects of one
// function. It has no control block, so making and copying it neither allocates nor counts.
template <class Part> std::shared_ptr<Part> unowned(Part& part) noexcept {
    return std::shared_ptr<Part>(std::shared_ptr<void>(), &part);
}

} // namespace corvo::parser
