// The character classes of a URL, one code unit each: the class's punctuation, "~", or a letter or digit of
// the matcher's locale. Percent signs are plain characters; nothing is decoded.
//
//     user name    ! $ % & ' * + , - . ; = _ ~                    (neither ":" nor parentheses, "@", "/")
//     password     ! $ % & ' ( ) * + , - . : ; = _ ~              (neither "@" nor "/")
//     path         ! # $ % & ' ( ) * + , - . / : ; = ? @ _ ~      (also query and fragment)
#pragma once

#include "http/parser/basic_parser.h"

#include <array>
#include <cstddef>
#include <string_view>

namespace corvo::parser {

namespace detail {

// A set of ASCII characters with constant look-up.
class punctuation_table {
public:
    explicit constexpr punctuation_table(std::string_view characters) noexcept {
        for (const char chr : characters) {
            m_contains[code_unit_value(chr)] = true;
        }
    }

    template <class T> constexpr bool contains(T chr) const noexcept {
        const std::size_t unit = code_unit_value(chr);
        return unit < 256 && m_contains[unit];
    }

private:
    std::array<bool, 256> m_contains{};
};

inline constexpr punctuation_table url_username_punctuation("!$%&'*+,-.;=_~");
inline constexpr punctuation_table url_password_punctuation("!$%&'()*+,-.:;=_~");
inline constexpr punctuation_table url_path_punctuation("!#$%&'()*+,-./:;=?@_~");

} // namespace detail

template <class T, const detail::punctuation_table& Punctuation>
class basic_url_char : public basic_parser<T> {
public:
    bool do_match(const T* text, std::size_t start, std::size_t end, unsigned) noexcept override {
        if (this->readable(text, start, end) &&
            (this->get_locale().is_letter_or_digit(text[start]) || Punctuation.contains(text[start]))) {
            return this->succeed(start, start + 1);
        }
        return this->fail();
    }

protected:
    using basic_parser<T>::basic_parser;
};

template <class T>
class basic_url_username_char final : public basic_url_char<T, detail::url_username_punctuation> {
public:
    explicit basic_url_username_char(locale_ref loc = {}) noexcept
        : basic_url_char<T, detail::url_username_punctuation>(loc) {}
};

template <class T>
class basic_url_password_char final : public basic_url_char<T, detail::url_password_punctuation> {
public:
    explicit basic_url_password_char(locale_ref loc = {}) noexcept
        : basic_url_char<T, detail::url_password_punctuation>(loc) {}
};

template <class T> class basic_url_path_char final : public basic_url_char<T, detail::url_path_punctuation> {
public:
    explicit basic_url_path_char(locale_ref loc = {}) noexcept
        : basic_url_char<T, detail::url_path_punctuation>(loc) {}
};

} // namespace corvo::parser
