// Path, query and fragment of a URL, each as its own interval:
//
//     path-part = *path-char [ "?" query ] [ "#" fragment ]
//     query     = *path-char                ; up to the first "#", a further "?" belongs to it
//     fragment  = *path-char                ; a further "#" belongs to it
//
// Matches always: an empty path is a path. A query or fragment that is absent is "no match", one that is
// empty is not.
#pragma once

#include "http/parser/basic_parser.h"
#include "http/parser/basic_url_char.h"

#include <cstddef>
#include <memory>
#include <utility>

namespace corvo::parser {

template <class T> class basic_url_path final : public basic_parser<T> {
public:
    explicit basic_url_path(std::shared_ptr<basic_url_path_char<T>> path_char, locale_ref loc = {}) noexcept
        : basic_parser<T>(loc), m_path_char(std::move(path_char)) {}

    void invalidate() noexcept override {
        m_path_char->invalidate();
        m_path.invalidate();
        m_query.invalidate();
        m_fragment.invalidate();
        basic_parser<T>::invalidate();
    }

    bool do_match(const T* text, std::size_t start, std::size_t end, unsigned flags) noexcept override {
        m_query.invalidate();
        m_fragment.invalidate();

        std::size_t at = start;
        while (!is_at(text, at, end, T('?')) && !is_at(text, at, end, T('#')) && take(text, at, end, flags)) {
        }
        m_path = {.start = start, .end = at};
        if (is_at(text, at, end, T('?'))) {
            const std::size_t query_start = ++at;
            while (!is_at(text, at, end, T('#')) && take(text, at, end, flags)) {
            }
            m_query = {.start = query_start, .end = at};
        }
        if (is_at(text, at, end, T('#'))) {
            const std::size_t fragment_start = ++at;
            while (take(text, at, end, flags)) {
            }
            m_fragment = {.start = fragment_start, .end = at};
        }
        return this->succeed(start, at);
    }

    const interval& path() const noexcept { return m_path; }
    const interval& query() const noexcept { return m_query; }
    const interval& fragment() const noexcept { return m_fragment; }

private:
    static bool is_at(const T* text, std::size_t at, std::size_t end, T chr) noexcept {
        return at < end && text[at] == chr;
    }

    // Takes one path character, moving `at` behind it.
    bool take(const T* text, std::size_t& at, std::size_t end, unsigned flags) noexcept {
        if (!m_path_char->do_match(text, at, end, flags)) {
            return false;
        }
        ++at;
        return true;
    }

    std::shared_ptr<basic_url_path_char<T>> m_path_char;
    interval m_path;
    interval m_query;
    interval m_fragment;
};

} // namespace corvo::parser
