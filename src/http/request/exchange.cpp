#include "http/request/exchange.h"

namespace webio {

void exchange::begin_sending() noexcept {
    m_state.fetch_or(sending_bit, std::memory_order_acq_rel);
}

exchange::duty exchange::end_sending() noexcept {
    std::uint32_t state = m_state.load(std::memory_order_acquire);
    for (;;) {
        std::uint32_t next = state & ~sending_bit;
        const bool close = (next & count_mask) == 0 && wants_close(next);
        if (close) {
            next |= close_taken_bit;
        }
        if (m_state.compare_exchange_weak(state, next, std::memory_order_acq_rel,
                                          std::memory_order_acquire)) {
            return close ? duty::close : duty::none;
        }
    }
}

bool exchange::enter() noexcept {
    return (m_state.fetch_add(1, std::memory_order_acq_rel) & failed_bit) == 0;
}

exchange::duty exchange::leave() noexcept {
    std::uint32_t state = m_state.load(std::memory_order_acquire);
    for (;;) {
        const bool last = (state & count_mask) == 1;
        // Who is about to close remains inside: the closing notification may come, and leave, before the call returns.
        const bool close = last && (state & sending_bit) == 0 && wants_close(state);
        const std::uint32_t next = close ? state | close_taken_bit : state - 1;
        if (m_state.compare_exchange_weak(state, next, std::memory_order_acq_rel,
                                          std::memory_order_acquire)) {
            if (close) {
                return duty::close;
            }
            return last && (next & closed_bit) != 0 ? duty::wake : duty::none;
        }
    }
}

void exchange::fail(const std::exception_ptr& failure) noexcept {
    if ((m_state.fetch_or(failed_bit, std::memory_order_acq_rel) & failed_bit) == 0) {
        m_failure = failure; // read by nobody before this notification has left
    }
}

bool exchange::take_close() noexcept {
    std::uint32_t state = m_state.load(std::memory_order_acquire);
    do {
        if ((state & (failed_bit | close_taken_bit | closed_bit)) != 0) {
            return false;
        }
    } while (!m_state.compare_exchange_weak(state, state | close_taken_bit, std::memory_order_acq_rel,
                                            std::memory_order_acquire));
    return true;
}

void exchange::closed() noexcept {
    m_state.fetch_or(closed_bit, std::memory_order_acq_rel);
}

bool exchange::failed() const noexcept {
    return (m_state.load(std::memory_order_acquire) & failed_bit) != 0;
}

bool exchange::ending() const noexcept {
    return (m_state.load(std::memory_order_acquire) & (failed_bit | close_taken_bit | closed_bit)) != 0;
}

bool exchange::idle() const noexcept {
    return (m_state.load(std::memory_order_acquire) & count_mask) == 0;
}

bool exchange::ended() const noexcept {
    return (m_state.load(std::memory_order_acquire) & (closed_bit | count_mask)) == closed_bit;
}

// After a failure the handle is to be closed, unless somebody does already or the platform has.
bool exchange::wants_close(std::uint32_t state) noexcept {
    return (state & (failed_bit | close_taken_bit | closed_bit)) == failed_bit;
}

} // namespace webio
