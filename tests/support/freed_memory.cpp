#include "tests/support/freed_memory.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <malloc.h>
#include <new>
#include <string_view>

namespace {

// The secret is copied into static memory: an allocation of the watch's own must not be among what it
// watches.
char secret_bytes[4096];
std::size_t secret_size = 0;
std::atomic<bool> active{false};
std::atomic<std::size_t> found_count{0};
std::atomic<std::size_t> released_count{0};
std::atomic<const void*> watched{nullptr};
std::atomic<bool> watched_released{false};
std::atomic<bool> watched_zero{false};
thread_local int allocations_left = -1; // negative: as many as are wanted

void look_into(const void* block) noexcept {
    const std::string_view bytes(static_cast<const char*>(block), ::_msize(const_cast<void*>(block)));
    released_count.fetch_add(1);
    if (bytes.find(std::string_view(secret_bytes, secret_size)) != std::string_view::npos) {
        found_count.fetch_add(1);
    }
    if (block == watched.load()) {
        watched.store(nullptr);
        watched_released.store(true);
        watched_zero.store(std::all_of(bytes.begin(), bytes.end(), [](char byte) { return byte == 0; }));
    }
}

} // namespace

void* operator new(std::size_t size) {
    if (allocations_left >= 0 && allocations_left-- == 0) {
        allocations_left = 0;
        throw std::bad_alloc();
    }
    void* const block = std::malloc(size != 0 ? size : 1);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    if (active.load()) {
        std::memset(block, 0xcc, size); // so that zeros found later were written
    }
    return block;
}

void operator delete(void* block) noexcept {
    if (block != nullptr && active.load()) {
        look_into(block);
    }
    std::free(block);
}

void operator delete(void* block, std::size_t) noexcept {
    operator delete(block);
}

namespace support {

freed_memory::freed_memory(const std::wstring& secret) {
    secret_size = std::min(secret.size() * sizeof(wchar_t), sizeof secret_bytes);
    std::memcpy(secret_bytes, secret.data(), secret_size);
    found_count = 0;
    released_count = 0;
    watched = nullptr;
    watched_released = false;
    watched_zero = false;
    active = true;
}

freed_memory::~freed_memory() {
    active = false;
}

std::size_t freed_memory::found() const noexcept {
    return found_count;
}

std::size_t freed_memory::released() const noexcept {
    return released_count;
}

void freed_memory::watch(const void* address) noexcept {
    watched = address;
}

bool freed_memory::watched_block_was_released() const noexcept {
    return watched_released;
}

bool freed_memory::watched_block_was_zero() const noexcept {
    return watched_zero;
}

scarce_memory::scarce_memory(int allocations) noexcept {
    allocations_left = allocations;
}

scarce_memory::~scarce_memory() {
    allocations_left = -1;
}

} // namespace support
