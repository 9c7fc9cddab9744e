// Character classification for the matchers: one class mask and one lower-case code unit for each of the 256
// code units of a single-byte text, or of UTF-8 seen byte by byte. A plain constant object, no platform, no
// allocation, no failure; any thread may read it. `std::locale` is avoided on purpose: linking it costs more
// than the rest of the HTTP client together.
//
// Code units above 255 (only wide texts have them) lie outside the table: they belong to no class and are
// their own lower case.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace corvo::parser {

// A code unit as an index into a table: never negative, whatever the sign of the character type.
template <class T> constexpr std::size_t code_unit_value(T chr) noexcept {
    return static_cast<std::make_unsigned_t<T>>(chr);
}

class locale {
public:
    // Class bits; a code unit may have several.
    static constexpr std::uint8_t upper = 1;
    static constexpr std::uint8_t lower = 2;
    static constexpr std::uint8_t digit = 4;
    static constexpr std::uint8_t alpha = 8;

    using class_table = std::array<std::uint8_t, 256>;
    using lower_table = std::array<std::uint8_t, 256>;

    constexpr locale(const class_table& classes, const lower_table& lower_case) noexcept
        : m_classes(classes), m_lower(lower_case) {}

    // ASCII letters and digits; every code unit above 127 is in no class.
    static constexpr const locale& classic() noexcept;

    // Whether `chr` has at least one of the class bits of `mask`.
    template <class T> constexpr bool is(std::uint8_t mask, T chr) const noexcept {
        const std::size_t unit = code_unit_value(chr);
        return unit < 256 && (m_classes[unit] & mask) != 0;
    }

    template <class T> constexpr bool is_letter_or_digit(T chr) const noexcept {
        return is(upper | lower | digit | alpha, chr);
    }

    template <class T> constexpr T to_lower(T chr) const noexcept {
        const std::size_t unit = code_unit_value(chr);
        return unit < 256 ? static_cast<T>(m_lower[unit]) : chr;
    }

private:
    class_table m_classes;
    lower_table m_lower;
};

namespace detail {

constexpr locale make_classic_locale() noexcept {
    locale::class_table classes{};
    locale::lower_table lower_case{};
    for (std::size_t unit = 0; unit < 256; ++unit) {
        lower_case[unit] = static_cast<std::uint8_t>(unit);
        if (unit >= '0' && unit <= '9') {
            classes[unit] = locale::digit;
        } else if (unit >= 'a' && unit <= 'z') {
            classes[unit] = locale::lower | locale::alpha;
        } else if (unit >= 'A' && unit <= 'Z') {
            classes[unit] = locale::upper | locale::alpha;
            lower_case[unit] = static_cast<std::uint8_t>(unit - 'A' + 'a');
        }
    }
    return {classes, lower_case};
}

inline constexpr locale classic_locale = make_classic_locale();

} // namespace detail

constexpr const locale& locale::classic() noexcept {
    return detail::classic_locale;
}

// The way a matcher takes its locale: by reference, never a temporary, since the matcher keeps the address.
class locale_ref {
public:
    constexpr locale_ref() noexcept : m_locale(&locale::classic()) {}
    // Not explicit: a locale is passed where a matcher asks for one.
    constexpr locale_ref(const locale& loc) noexcept : m_locale(&loc) {}
    locale_ref(const locale&&) = delete;

    constexpr const locale& get() const noexcept { return *m_locale; }

private:
    const locale* m_locale;
};

} // namespace corvo::parser
