// Looks into heap memory at the moment it is released: for tests that a secret does not survive in it.
//
// The unit-test program has its own operator new and delete for this (freed_memory.cpp); they are the usual
// ones unless an object of this class lives. One at a time.
#pragma once

#include <cstddef>
#include <string>

namespace support {

class freed_memory {
public:
    // `secret` is what no released block may hold any more.
    explicit freed_memory(const std::wstring& secret);
    freed_memory(const freed_memory&) = delete;
    freed_memory& operator=(const freed_memory&) = delete;
    ~freed_memory();

    // How many blocks held the secret when they were released, and how many were looked at.
    std::size_t found() const noexcept;
    std::size_t released() const noexcept;

    // From now on says of the block at `address` whether it was all zero when it was released.
    void watch(const void* address) noexcept;
    bool watched_block_was_released() const noexcept;
    bool watched_block_was_zero() const noexcept;
};

// While an object of this class lives, the thread that made it gets so many allocations of operator new, and then none.
class scarce_memory {
public:
    explicit scarce_memory(int allocations) noexcept;
    scarce_memory(const scarce_memory&) = delete;
    scarce_memory& operator=(const scarce_memory&) = delete;
    ~scarce_memory();
};

} // namespace support
