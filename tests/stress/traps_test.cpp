// That undefined behaviour ends a program of this build: each of these mistakes reaches a trap. A build in which the checks are off, or
// were configured to go on, fails here.
#include "platform/structured_exception.h"

#include <gtest/gtest.h>

#include <climits>
#include <stdexcept>
#include <string>

namespace {

// How the trap shows: as an instruction that there is not, or as a breakpoint, by processor.
bool traps(void (*mistake)(void*)) {
    try {
        pwrap::run_guarded(mistake, nullptr);
    } catch (const std::runtime_error& error) {
        const std::string found = error.what();
        EXPECT_TRUE(found == "structured exception 0xC000001D" || found == "structured exception 0x80000003")
            << found;
        return true;
    }
    return false;
}

volatile int sink;

} // namespace

TEST(traps, end_a_signed_overflow) {
    EXPECT_TRUE(traps([](void*) {
        volatile int most = INT_MAX;
        sink = most + 1;
    }));
}

TEST(traps, end_a_shift_by_all_bits) {
    EXPECT_TRUE(traps([](void*) {
        volatile int bits = 32;
        sink = 1 << bits;
    }));
}

TEST(traps, end_an_index_behind_an_array) {
    EXPECT_TRUE(traps([](void*) {
        int numbers[4] = {1, 2, 3, 4};
        volatile int behind = 4;
        sink = numbers[behind];
    }));
}

TEST(traps, end_a_misaligned_read) {
    EXPECT_TRUE(traps([](void*) {
        alignas(int) char bytes[8] = {};
        volatile int offset = 1;
        sink = *reinterpret_cast<const int*>(bytes + offset);
    }));
}

TEST(traps, let_defined_arithmetic_pass) {
    EXPECT_FALSE(traps([](void*) {
        volatile unsigned most = UINT_MAX;
        sink = static_cast<int>(most + 1);
    }));
}
