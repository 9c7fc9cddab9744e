// That the sanitizers of this build find what they are there for: each test makes one mistake in a process of its own, and the process
// is ended for it. A build in which the sanitizer is off, or was configured to be silent, fails here.
#include <gtest/gtest.h>

#include <cstdlib>
#include <new>
#include <thread>

// As __asan_default_options does for the other sanitizer: an allocation that is too big is refused, as elsewhere. The first race ends the
// program.
#if __has_feature(thread_sanitizer)
#pragma clang diagnostic ignored "-Wreserved-identifier"
extern "C" const char* __tsan_default_options();
extern "C" const char* __tsan_default_options() {
    return "allocator_may_return_null=1:halt_on_error=1";
}
#endif

namespace {

#if __has_feature(address_sanitizer)

// A block that nothing points to any more when the function has returned; the stack that may still hold its address is overwritten.
[[gnu::noinline]] void lose_a_block() {
    [[maybe_unused]] void* volatile block = ::operator new(12345);
    block = nullptr;
}

[[gnu::noinline]] void overwrite_the_stack() {
    volatile char filler[4096];
    for (volatile char& each : filler) {
        each = 0;
    }
}

[[noreturn]] void end_having_lost_a_block() {
    std::thread([] { // whose stack is gone with it, and its registers
        lose_a_block();
        overwrite_the_stack();
    })
        .join();
    std::exit(0); // the leak is looked for at exit
}

[[noreturn]] void end_having_kept_all() {
    std::exit(0);
}

[[noreturn]] void read_what_is_freed() {
    auto* const block = new volatile int(1);
    delete block;
    const int value = *block; // NOLINT(clang-analyzer-cplusplus.NewDelete): that is the mistake
    std::exit(value);
}

[[noreturn]] void overflow() {
    volatile int number = 0x7FFFFFFF;
    number = number + 1;
    std::exit(0);
}

TEST(sanitizers_death_test, find_a_leak) {
    EXPECT_EXIT(end_having_lost_a_block(), testing::ExitedWithCode(1),
                "LeakSanitizer: detected memory leaks");
}

TEST(sanitizers_death_test, find_no_leak_where_there_is_none) {
    EXPECT_EXIT(end_having_kept_all(), testing::ExitedWithCode(0), "");
}

TEST(sanitizers_death_test, find_a_use_after_free) {
    EXPECT_DEATH(read_what_is_freed(), "AddressSanitizer: heap-use-after-free");
}

TEST(sanitizers_death_test, find_an_overflow) {
    EXPECT_DEATH(overflow(), "signed integer overflow");
}

#elif __has_feature(thread_sanitizer)

int shared = 0;

[[noreturn]] void race() {
    std::thread other([] { ++shared; });
    ++shared;
    other.join();
    std::exit(0); // TSan turns this into its own exit code
}

[[noreturn]] void take_turns() {
    std::thread([] { ++shared; }).join();
    ++shared;
    std::exit(0);
}

TEST(sanitizers_death_test, find_a_race) {
    GTEST_FLAG_SET(death_test_style, "threadsafe"); // the sanitizer has a thread of its own
    EXPECT_EXIT(race(), testing::ExitedWithCode(66), "ThreadSanitizer: data race");
}

TEST(sanitizers_death_test, find_no_race_where_there_is_none) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(take_turns(), testing::ExitedWithCode(0), "");
}

#else

TEST(sanitizers_death_test, find_a_leak) {
    GTEST_SKIP() << "built without a sanitizer";
}

#endif

} // namespace
