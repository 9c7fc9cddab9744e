// Who holds a request while it is under way: the count of the notifications inside it, its first failure, who closes its handle, and when the
// waiting thread may use it again.
//
// Portable, and every operation may be called on any thread at any time between the first begin_sending() and the end. It owns the failure
// that it is given and nothing else; handles, events and the platform's calls are the request's business. No operation throws or waits.
//
//     waiting thread      begin_sending, (the platform's call), end_sending, then it waits
//     a notification      enter, (its work; fail if that throws; take_close at the end of the body), leave
//     closing             the last notification of a handle; it also calls closed before it leaves
//
// The handle is closed once: at the end of the body by who takes that over with take_close(), and after a failure by whoever is the last to
// use it, so that nobody hands the platform a handle that is closed. The waiting thread is woken once, by the last to leave after the
// closing notification. Whoever was given duty::wake or duty::none does not touch the request any more.
#pragma once

#include <atomic>
#include <cstdint>
#include <exception>

namespace webio {

class exchange {
public:
    // What the caller that leaves must still do.
    enum class duty {
        none,
        close, // close the handle and leave once more: the caller is still inside
        wake   // wake the waiting thread
    };

    exchange() = default;
    exchange(const exchange&) = delete;
    exchange& operator=(const exchange&) = delete;

    // The waiting thread is about to use the handle, and has done so. duty::close: it closes the handle, and does not leave once more.
    void begin_sending() noexcept;
    duty end_sending() noexcept;

    // A notification begins. False if the exchange has failed: nothing but the closing notification is handled then.
    bool enter() noexcept;

    // A notification has ended.
    duty leave() noexcept;

    // Keeps the first failure, which is the cause; those that follow from it are dropped. Called inside a notification.
    void fail(const std::exception_ptr& failure) noexcept;

    // Takes over closing the handle; false if somebody else has, or if the exchange has failed. Called inside a notification.
    bool take_close() noexcept;

    // The closing notification has come. Called inside of it; a second call changes nothing.
    void closed() noexcept;

    bool failed() const noexcept;

    // The exchange has failed, or its handle is closed: nothing is to be sent any more.
    bool ending() const noexcept;

    // No notification is inside.
    bool idle() const noexcept;

    // The closing notification has come and nobody is inside any more.
    bool ended() const noexcept;

    // The first failure, or null. To be asked for when the exchange has ended, or is idle and will remain so.
    const std::exception_ptr& failure() const noexcept { return m_failure; }

private:
    // One word, so that each step sees all of it: the count of those inside, and what has happened.
    static constexpr std::uint32_t count_mask = 0xFFFF;
    static constexpr std::uint32_t sending_bit = 0x10000;
    static constexpr std::uint32_t failed_bit = 0x20000;
    static constexpr std::uint32_t close_taken_bit = 0x40000;
    static constexpr std::uint32_t closed_bit = 0x80000;

    static bool wants_close(std::uint32_t state) noexcept;

    std::atomic<std::uint32_t> m_state{0};
    std::exception_ptr m_failure;
};

} // namespace webio
