#include "stream/basic_sys.h"

#include "platform/last_error.h"

#include <algorithm>

namespace corvo::stream {

namespace {

// Some drivers and redirectors refuse a single transfer beyond some 32 MB, and with little memory left even
// that is too much to lock: then 64 KiB is tried.
constexpr DWORD longest_piece = 0x1F80000;
constexpr DWORD frugal_piece = 0x10000;

DWORD piece_of(std::size_t rest, DWORD limit) noexcept {
    return static_cast<DWORD>(std::min<std::size_t>(rest, limit));
}

// A bad buffer or a mapped file whose medium has gone makes the system call itself fault, and a transfer that
// faults is a transfer that failed. The function that holds __try has nothing to destroy, and what it guards
// is a call: a fault of its own instructions would not be caught.
BOOL guarded_read(HANDLE handle, void* data, DWORD length, DWORD* done) {
    __try {
        return ::ReadFile(handle, data, length, done, nullptr);
    } __except (EXCEPTION_EXECUTE_HANDLER) {
        *done = 0;
        ::SetLastError(ERROR_UNHANDLED_EXCEPTION);
        return FALSE;
    }
}

BOOL guarded_write(HANDLE handle, const void* data, DWORD length, DWORD* done) {
    __try {
        return ::WriteFile(handle, data, length, done, nullptr);
    } __except (EXCEPTION_EXECUTE_HANDLER) {
        *done = 0;
        ::SetLastError(ERROR_UNHANDLED_EXCEPTION);
        return FALSE;
    }
}

} // namespace

std::size_t basic_sys::read(void* data, std::size_t length) {
    auto* const bytes = static_cast<unsigned char*>(data);
    std::size_t total = 0;
    DWORD limit = longest_piece;
    while (total < length) {
        const DWORD piece = piece_of(length - total, limit);
        DWORD done = 0;
        if (guarded_read(m_handle, bytes + total, piece, &done) == FALSE) {
            if (piece > frugal_piece && last_error() == ERROR_NO_SYSTEM_RESOURCES) {
                limit = frugal_piece;
                continue;
            }
            total += done; // a message too long for the piece fails, with its beginning delivered
            m_state = total > 0 ? state_t::ok : state_t::fail;
            return total;
        }
        if (done == 0) {
            m_state = total > 0 ? state_t::ok : state_t::eof;
            return total;
        }
        total += done;
    }
    m_state = state_t::ok;
    return total;
}

// No fallback to smaller pieces here: a write is either taken by the system whole or refused.
std::size_t basic_sys::write(const void* data, std::size_t length) {
    const auto* const bytes = static_cast<const unsigned char*>(data);
    std::size_t total = 0;
    while (total < length) {
        DWORD done = 0;
        const BOOL succeeded =
            guarded_write(m_handle, bytes + total, piece_of(length - total, longest_piece), &done);
        total += done;
        // A pipe that does not wait may succeed with nothing taken; asking again without end would hang.
        if (succeeded == FALSE || done == 0) {
            m_state = state_t::fail;
            return total;
        }
    }
    m_state = state_t::ok;
    return total;
}

void basic_sys::flush() {
    m_state = ::FlushFileBuffers(m_handle) != FALSE ? state_t::ok : state_t::fail;
}

void basic_sys::close() {
    if (!valid()) {
        return;
    }
    if (!sys_object_traits::close(m_handle)) {
        throw_last_error(sys_object_traits::close_failed);
    }
    m_handle = sys_object_traits::invalid();
    m_state = state_t::ok;
}

} // namespace corvo::stream
