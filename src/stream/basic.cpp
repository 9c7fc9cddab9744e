#include "stream/basic.h"

#include "platform/last_error.h"

#include <algorithm>
#include <memory>
#include <new>
#include <system_error>

namespace corvo::stream {

namespace {

// Below this amount a skip reads byte by byte, and at most this much is read at once above it.
constexpr fsize shortest_block_skip = 16;
constexpr fsize longest_scratch = 0x10000;

} // namespace

basic::~basic() noexcept(false) = default;

std::size_t basic::read(void* /*data*/, std::size_t /*length*/) {
    m_state = state_t::fail;
    return 0;
}

std::size_t basic::write(const void* /*data*/, std::size_t /*length*/) {
    m_state = state_t::fail;
    return 0;
}

void basic::flush() {
    m_state = state_t::ok;
}

void basic::close() {
    m_state = state_t::ok;
}

// The three ways are meant to differ: a short skip is a parser stepping over a few bytes that must be there,
// so it throws like read_byte; a long one is a transfer, whose outcome is in the state; none at all touches
// nothing, not even a state that an earlier operation left.
void basic::skip(fsize amount) {
    if (amount < shortest_block_skip) {
        for (; amount > 0; --amount) {
            read_byte();
        }
        return;
    }
    const auto scratch_size = static_cast<std::size_t>(std::min(amount, longest_scratch));
    const std::unique_ptr<std::byte[]> scratch(new (std::nothrow) std::byte[scratch_size]);
    if (scratch == nullptr) {
        m_state = state_t::fail;
        return;
    }
    do {
        const auto piece = static_cast<std::size_t>(std::min<fsize>(amount, scratch_size));
        amount -= read(scratch.get(), piece);
    } while (amount > 0 && ok());
}

std::uint8_t basic::read_byte() {
    std::uint8_t byte = 0;
    while (read(&byte, 1) == 0) {
        if (!ok()) {
            corvo::throw_last_error("failed to read");
        }
    }
    return byte;
}

} // namespace corvo::stream
