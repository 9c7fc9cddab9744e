// Matches a part repeated between a minimum and a maximum number of times, as often as it matches (greedy, without
// backtracking). `Part` may be a final matcher class, which then is called directly.
// A repetition that covers nothing ends the loop as if it had been repeated to the minimum: every further one
// would be the same, so a part that matches the empty text cannot make the loop endless.
#pragma once

#include "http/parser/basic_parser.h"

#include <cstddef>
#include <memory>
#include <utility>

namespace corvo::parser {

template <class T, class Part = basic_parser<T>> class basic_iterations final : public basic_parser<T> {
public:
    // At least `minimum` and at most `maximum` repetitions (`npos`: without limit).
    basic_iterations(std::shared_ptr<Part> part, std::size_t minimum, std::size_t maximum,
                     locale_ref loc = {}) noexcept
        : basic_parser<T>(loc), m_part(std::move(part)), m_minimum(minimum), m_maximum(maximum) {}

    void invalidate() noexcept override {
        m_part->invalidate();
        basic_parser<T>::invalidate();
    }

    bool do_match(const T* text, std::size_t start, std::size_t end, unsigned flags) noexcept override {
        Part& part = *m_part;
        std::size_t at = start;
        for (std::size_t count = 0; count < m_maximum; ++count) {
            if (!this->match_part(part, text, at, end, flags)) {
                if (count < m_minimum) {
                    return this->fail();
                }
                break;
            }
            if (part.hit().end == at) {
                break;
            }
            at = part.hit().end;
        }
        return this->succeed(start, at);
    }

private:
    std::shared_ptr<Part> m_part;
    std::size_t m_minimum;
    std::size_t m_maximum;
};

} // namespace corvo::parser
