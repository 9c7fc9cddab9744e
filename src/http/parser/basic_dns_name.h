// DNS names (RFC 1035 section 2.3.1, with labels that may begin with a digit as in RFC 1123 section 2.1):
//
//     name  = label *126( separator label ) [ separator ]     ; the last separator in absolute names only
//     label = edge *( *"-" edge )                             ; edge: digit, letter
//
// Lengths in octets are not checked; the server's resolver does that. A "-" at the end of a label belongs to
// no label: the name ends before it.
#pragma once

#include "http/parser/basic_parser.h"

#include <cstddef>
#include <memory>
#include <utility>

namespace corvo::parser {

template <class T> class basic_dns_domain_char final : public basic_parser<T> {
public:
    // International names also take letters and digits of the locale that are not ASCII.
    explicit basic_dns_domain_char(bool allow_international, locale_ref loc = {}) noexcept
        : basic_parser<T>(loc), m_allow_international(allow_international) {}

    void invalidate() noexcept override {
        m_allow_on_edge = false;
        basic_parser<T>::invalidate();
    }

    bool do_match(const T* text, std::size_t start, std::size_t end, unsigned) noexcept override {
        m_allow_on_edge = false;
        if (!this->readable(text, start, end)) {
            return this->fail();
        }
        const T chr = text[start];
        if (locale::classic().is_letter_or_digit(chr) ||
            (m_allow_international && this->get_locale().is_letter_or_digit(chr))) {
            m_allow_on_edge = true;
        } else if (chr != T('-')) {
            return this->fail();
        }
        return this->succeed(start, start + 1);
    }

    // Whether the matched character may stand at a label's edge; false when there is no match.
    bool allow_on_edge() const noexcept { return m_allow_on_edge; }

private:
    bool m_allow_international;
    bool m_allow_on_edge = false;
};

template <class T> class basic_dns_name final : public basic_parser<T> {
public:
    static constexpr std::size_t max_labels = 127;

    basic_dns_name(bool allow_absolute, std::shared_ptr<basic_dns_domain_char<T>> domain_char,
                   std::shared_ptr<basic_parser<T>> separator, locale_ref loc = {}) noexcept
        : basic_parser<T>(loc), m_allow_absolute(allow_absolute), m_domain_char(std::move(domain_char)),
          m_separator(std::move(separator)) {}

    void invalidate() noexcept override {
        m_domain_char->invalidate();
        m_separator->invalidate();
        basic_parser<T>::invalidate();
    }

    bool do_match(const T* text, std::size_t start, std::size_t end, unsigned flags) noexcept override {
        std::size_t name_end = start;
        std::size_t label_start = start;
        for (std::size_t labels = 0; labels < max_labels; ++labels) {
            const std::size_t label_end = match_label(text, label_start, end, flags);
            if (label_end == label_start) {
                break;
            }
            name_end = label_end;
            // Behind a trailing "-" there is no separator at the label's end, so the name ends here.
            if (!m_separator->match(text, label_end, end, flags)) {
                break;
            }
            label_start = m_separator->hit().end;
            if (m_allow_absolute) {
                name_end = label_start;
            }
        }
        return name_end > start ? this->succeed(start, name_end) : this->fail();
    }

private:
    // Returns the position behind the label's last character that may stand at its edge; `start` when no
    // label begins there.
    std::size_t match_label(const T* text, std::size_t start, std::size_t end, unsigned flags) noexcept {
        basic_dns_domain_char<T>& domain_char = *m_domain_char;
        std::size_t label_end = start;
        for (std::size_t at = start; domain_char.do_match(text, at, end, flags); ++at) {
            if (domain_char.allow_on_edge()) {
                label_end = at + 1;
            } else if (label_end == start) {
                break;
            }
        }
        return label_end;
    }

    bool m_allow_absolute;
    std::shared_ptr<basic_dns_domain_char<T>> m_domain_char;
    std::shared_ptr<basic_parser<T>> m_separator;
};

} // namespace corvo::parser
