// Composites over a list of parts. `parser_collection` holds the list; `basic_branch` matches the first of
// its alternatives that matches, in the order given, and keeps its index; `basic_string_branch` is the branch
// over literal strings. The references are stored in the object itself, so their number is part of the type; a row of matchers that
// stand side by side in an array is one reference.
// `Part` may be a final matcher class, which then is called directly, or `basic_parser<T>` for mixed parts.
// No reference is null.
#pragma once

#include "http/parser/basic_parser.h"
#include "http/parser/basic_string.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>

namespace corvo::parser {

template <class T, class Part, std::size_t Count> class parser_collection : public basic_parser<T> {
public:
    using part_list = std::array<std::shared_ptr<Part>, Count>;

    void invalidate() noexcept override {
        for (std::size_t index = 0; index < Count; ++index) {
            part(index).invalidate();
        }
        basic_parser<T>::invalidate();
    }

protected:
    explicit parser_collection(part_list parts, locale_ref loc) noexcept
        : basic_parser<T>(loc), m_parts(std::move(parts)) {}

    // Refers to the first `Count` matchers of an array without owning them; they outlive the collection.
    template <std::size_t Size>
    parser_collection(std::array<Part, Size>& parts, locale_ref loc) noexcept
        : basic_parser<T>(loc), m_row(parts.data()) {
        static_assert(Count <= Size);
    }

    Part& part(std::size_t index) const noexcept {
        return m_row != nullptr ? m_row[index] : *(*m_parts)[index];
    }

private:
    // One of the two is set. Without a value the list costs no time: a URL's digits alone are 26 references.
    std::optional<part_list> m_parts;
    Part* m_row = nullptr;
};

// Tells for each ASCII code unit which of a row of sets is the first that contains it. A branch over such sets uses it to look a code unit
// up, and need not ask one alternative after the other. Built at compile time: building it costs more than it saves in one match.
class set_index {
public:
    template <std::size_t Count>
    explicit constexpr set_index(const std::array<std::string_view, Count>& sets) noexcept {
        static_assert(Count < none);
        m_index.fill(none);
        // From behind, so that the first set that has a code unit keeps it.
        for (std::size_t index = Count; index-- > 0;) {
            for (const char chr : sets[index]) {
                if (knows(chr)) {
                    m_index[code_unit_value(chr)] = static_cast<std::uint8_t>(index);
                }
            }
        }
    }

    template <class T> static constexpr bool knows(T chr) noexcept { return code_unit_value(chr) < size; }

    // Index of the set; one that is greater than that of any set if none has it.
    template <class T> constexpr std::size_t find(T chr) const noexcept {
        return m_index[code_unit_value(chr)];
    }

private:
    static constexpr std::size_t size = 128;
    static constexpr std::uint8_t none = 255;

    std::array<std::uint8_t, size> m_index{};
};

template <class T, class Part, std::size_t Count>
class basic_branch final : public parser_collection<T, Part, Count> {
    using base = parser_collection<T, Part, Count>;

public:
    explicit basic_branch(typename base::part_list alternatives, locale_ref loc = {}) noexcept
        : base(std::move(alternatives), loc) {}

    // The alternatives are the first `Count` matchers of an array, which outlives the branch.
    template <std::size_t Size>
    explicit basic_branch(std::array<Part, Size>& alternatives, locale_ref loc = {}) noexcept
        : base(alternatives, loc) {}

    // The same, of sets whose first `Count` are those that `known` was made from. It outlives the branch, too.
    template <std::size_t Size>
    basic_branch(std::array<Part, Size>& alternatives, const set_index& known, locale_ref loc = {}) noexcept
        : base(alternatives, loc), m_known(&known) {}

    void invalidate() noexcept override {
        m_index = npos;
        base::invalidate();
    }

    bool do_match(const T* text, std::size_t start, std::size_t end, unsigned flags) noexcept override {
        if (m_known != nullptr && this->readable(text, start, end) && set_index::knows(text[start])) {
            return match_known(text, start, end, flags);
        }
        const std::size_t former = m_index;
        for (std::size_t index = 0; index < Count; ++index) {
            if (this->match_part(this->part(index), text, start, end, flags)) {
                // Alternatives before this one have just failed; of those behind it only the former match
                // can still hold an interval.
                if (former != npos && former > index) {
                    this->part(former).invalidate();
                }
                m_index = index;
                return this->succeed(start, this->part(index).hit().end);
            }
        }
        m_index = npos;
        return this->fail();
    }

    // Index of the alternative that matched; `npos` when there is no match.
    std::size_t index() const noexcept { return m_index; }

private:
    // What the loop does, but only the alternative that will match is asked. Of the others only the former match can hold an interval.
    bool match_known(const T* text, std::size_t start, std::size_t end, unsigned flags) noexcept {
        const std::size_t known = m_known->find(text[start]);
        if (m_index != npos && m_index != known) {
            this->part(m_index).invalidate();
        }
        if (known >= Count) {
            m_index = npos;
            return this->fail();
        }
        m_index = known;
        this->match_part(this->part(known), text, start, end, flags);
        return this->succeed(start, start + 1);
    }

    std::size_t m_index = npos;
    const set_index* m_known = nullptr;
};

template <class T, std::size_t Count> using basic_string_branch = basic_branch<T, basic_string<T>, Count>;

} // namespace corvo::parser
