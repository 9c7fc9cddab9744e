#include "minisign/base64.h"

namespace corvo::minisign {
namespace {

constexpr std::uint8_t padding = 64;
constexpr std::uint8_t invalid = 255;

// The 6-bit value of each byte.
constexpr auto values = []() {
    std::array<std::uint8_t, 256> table{};
    table.fill(invalid);
    constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    for (std::size_t i = 0; i < alphabet.size(); ++i) {
        table[static_cast<unsigned char>(alphabet[i])] = static_cast<std::uint8_t>(i);
    }
    table['='] = padding;
    return table;
}();

} // namespace

void base64_decoder::decode(std::string_view text, std::string& output) {
    output.reserve(output.size() + (m_count + text.size() + 3) / 4 * 3);
    const auto emit = [&](unsigned int bits) { output += static_cast<char>(bits & 0xff); };
    for (const char c : text) {
        if (m_stopped) {
            return;
        }
        const std::uint8_t value = values[static_cast<unsigned char>(c)];
        if (value == invalid) {
            continue;
        }
        m_pending[m_count++] = value;
        if (m_count < m_pending.size()) {
            continue;
        }
        m_count = 0;
        const auto [a, b, third, fourth] = m_pending;
        emit(static_cast<unsigned int>(a) << 2 | static_cast<unsigned int>(b) >> 4);
        if (third == padding) {
            m_stopped = true;
            return;
        }
        emit(static_cast<unsigned int>(b) << 4 | static_cast<unsigned int>(third) >> 2);
        if (fourth == padding) {
            m_stopped = true;
            return;
        }
        emit(static_cast<unsigned int>(third) << 6 | fourth);
    }
}

} // namespace corvo::minisign
