// Whole reports of made-up crashes, inflated and compared byte for byte.
#include "errorreport/compose_report.h"

#include "platform/errors.h"
#include "platform/loader_lock.h"
#include "tests/errorreport/fake_stack.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cwchar>
#include <future>
#include <numeric>
#include <system_error>
#include <thread>

using corvo::errorreport::report_kind;
using test::bytes;
using test::expected_report;
using test::fake_stack;
using test::step;

namespace {

#ifdef __aarch64__
constexpr std::uint16_t machine = 0xAA64;
#else
constexpr std::uint16_t machine = 0x8664;
#endif

// What every short report of the fake stack begins with.
expected_report brief_head() {
    expected_report expected;
    expected.text("TZO1").u16(machine);
    expected.u32(0xC0000005).u32(0).u64(0x140001010).u32(0);
    return expected;
}

expected_report brief_module() {
    return brief_head().text("MOD1").u32(11).units(L"lumaris.exe").u32(0x11223344);
}

// The frames of a full report, from the first module on; what stands before them has tests of its own.
bytes frames_of(const bytes& full) {
    const bytes tag{'M', 'O', 'D', '1'};
    return {std::search(full.begin(), full.end(), tag.begin(), tag.end()), full.end()};
}

TEST(compose_report, short_report_has_the_first_record_and_a_function_for_each_frame) {
    fake_stack stack;
    EXCEPTION_RECORD cause{};
    cause.ExceptionCode = 0xE0000001;
    stack.record().ExceptionFlags = EXCEPTION_NONCONTINUABLE;
    stack.record().NumberParameters = 2;
    stack.record().ExceptionInformation[0] = 1;
    stack.record().ExceptionInformation[1] = 0xFFFFFFFFFFFFFFF0;
    stack.record().ExceptionRecord = &cause;
    stack.steps = {{true, 0x140001010, 0x7100, 0x7000, 0x140001222},
                   {true, 0x140001222, 0x7200, 0x7100, 0x140001333},
                   {true, 0x140001333, 0x7300, 0x7200, 0}};
    expected_report expected;
    expected.text("TZO1").u16(machine);
    expected.u32(0xC0000005).u32(1).u64(0x140001010).u32(2).u64(1).u64(0xFFFFFFFFFFFFFFF0);
    expected.text("MOD1").u32(11).units(L"lumaris.exe").u32(0x11223344);
    expected.text("FUN1").u64(0x1010).text("FUN1").u64(0x1222).text("FUN1").u64(0x1333);
    EXPECT_EQ(expected.get(), stack.composed(report_kind::brief));
}

TEST(compose_report, full_report_has_every_record_of_the_chain_and_the_context) {
    fake_stack stack;
    EXCEPTION_RECORD cause{};
    cause.ExceptionCode = 0xE0000001;
    cause.ExceptionFlags = 2;
    cause.ExceptionAddress = reinterpret_cast<void*>(0x77);
    cause.NumberParameters = 1;
    cause.ExceptionInformation[0] = 5;
    stack.record().ExceptionRecord = &cause;
    const bytes report = stack.composed(report_kind::full);
    expected_report expected;
    expected.text("TZR1").u16(machine).u32(2);
    expected.u32(0xC0000005).u32(0).u64(0x140001010).u32(0);
    expected.u32(0xE0000001).u32(2).u64(0x77).u32(1).u64(5);
#ifdef __aarch64__
    expected.u32(CONTEXT_FULL);
    constexpr std::size_t blocks = 248 + 36 + 520 + 120;
#else
    expected.u32(0);
    constexpr std::size_t blocks = 0;
#endif
    const std::size_t head = expected.get().size();
    ASSERT_GE(report.size(), head + blocks + 4);
    EXPECT_EQ(expected.get(), bytes(report.begin(), report.begin() + static_cast<std::ptrdiff_t>(head)));
    EXPECT_EQ("MOD1", std::string(report.begin() + static_cast<std::ptrdiff_t>(head + blocks),
                                  report.begin() + static_cast<std::ptrdiff_t>(head + blocks) + 4));
#ifdef __aarch64__
    expected_report control; // behind the integer block: Fp, Lr, Sp, Pc, Cpsr
    control.u64(0x7100).u64(0x140001222).u64(0x7000).u64(0x140001010).u32(0);
    const auto at = report.begin() + static_cast<std::ptrdiff_t>(head) + 248;
    EXPECT_EQ(control.get(), bytes(at, at + 36));
#endif
}

TEST(compose_report, full_report_has_checksum_and_base_of_modules_and_the_stack_of_each_frame) {
    fake_stack stack;
    std::vector<std::uint64_t> memory(6);
    std::iota(memory.begin(), memory.end(), 0x100);
    const auto at = reinterpret_cast<DWORD64>(memory.data());
    stack.steps = {{true, 0x140001010, at + 16, at, 0x140001222}, {true, 0x140001222, at + 48, at + 16, 0}};
    expected_report expected;
    expected.text("MOD1").u32(11).units(L"lumaris.exe").u32(0x11223344).u32(0x55667788).u64(0x140000000);
    expected.text("FUN1").u64(0x1010).u64(16).u64(at).u64(0x100).u64(0x101);
    expected.text("FUN1").u64(0x1222).u64(32).u64(at + 16).u64(0x102).u64(0x103).u64(0x104).u64(0x105);
    EXPECT_EQ(expected.get(), frames_of(stack.composed(report_kind::full)));
}

TEST(compose_report, frame_without_stack_memory_has_a_size_of_zero) {
    fake_stack stack;
    std::uint64_t memory = 0x100;
    const auto at = reinterpret_cast<DWORD64>(&memory);
    stack.steps = {{true, 0x140001010, at, at, 1},
                   {true, 0x140001011, at, at + 8, 1},
                   {true, 0x140001012, 0, at, 1},
                   {true, 0x140001013, at, 0, 1},
                   {true, 0x140001014, at + 8, at, 0}};
    expected_report expected;
    expected.text("MOD1").u32(11).units(L"lumaris.exe").u32(0x11223344).u32(0x55667788).u64(0x140000000);
    for (const std::uint64_t offset : {0x1010U, 0x1011U, 0x1012U, 0x1013U}) {
        expected.text("FUN1").u64(offset).u64(0);
    }
    expected.text("FUN1").u64(0x1014).u64(8).u64(at).u64(0x100);
    EXPECT_EQ(expected.get(), frames_of(stack.composed(report_kind::full)));
}

TEST(compose_report, stack_that_cannot_be_read_is_left_out) {
    fake_stack stack;
    auto* const memory =
        static_cast<std::byte*>(::VirtualAlloc(nullptr, 0x3000, MEM_RESERVE, PAGE_READWRITE));
    ASSERT_EQ(memory, ::VirtualAlloc(memory, 0x1000, MEM_COMMIT, PAGE_READWRITE));
    const auto at = reinterpret_cast<DWORD64>(memory);
    stack.steps = {{true, 0x140001010, at + 0x2000, at, 1},       // ends in memory that is not there
                   {true, 0x140001011, 0x7FFFFFFFFFFF, at, 1},    // a frame pointer used for something else
                   {true, 0x140001012, 0x9000000000000000, 8, 1}, // both
                   {true, 0x140001013, at + 0x1000, at + 0xFF8, 0}}; // just fits
    expected_report expected;
    expected.text("MOD1").u32(11).units(L"lumaris.exe").u32(0x11223344).u32(0x55667788).u64(0x140000000);
    expected.text("FUN1").u64(0x1010).u64(0).text("FUN1").u64(0x1011).u64(0).text("FUN1").u64(0x1012).u64(0);
    expected.text("FUN1").u64(0x1013).u64(8).u64(at + 0xFF8).u64(0);
    EXPECT_EQ(expected.get(), frames_of(stack.composed(report_kind::full)));

    // The same in memory that is there and must not be read.
    expected_report unreadable;
    unreadable.text("MOD1").u32(11).units(L"lumaris.exe").u32(0x11223344).u32(0x55667788).u64(0x140000000);
    unreadable.text("FUN1").u64(0x1010).u64(0).text("FUN1").u64(0x1011).u64(0).text("FUN1").u64(0x1012).u64(
        0);
    unreadable.text("FUN1").u64(0x1013).u64(0);
    for (const DWORD protection :
         {DWORD{PAGE_READWRITE | PAGE_GUARD}, DWORD{PAGE_NOACCESS}, DWORD{PAGE_EXECUTE}}) {
        DWORD former = 0;
        ASSERT_TRUE(::VirtualProtect(memory, 0x1000, protection, &former));
        stack.frames_seen.clear();
        EXPECT_EQ(unreadable.get(), frames_of(stack.composed(report_kind::full))) << protection;
    }
    ::VirtualFree(memory, 0, MEM_RELEASE);
}

// Frames of a full report after the head of their one module: how many bytes of stack memory each has.
std::vector<std::size_t> memory_sizes(const bytes& full) {
    const auto number = [](bytes::const_iterator from) {
        std::size_t value = 0;
        for (int index = 7; index >= 0; --index) {
            value = value << 8 | from[index];
        }
        return value;
    };
    const bytes frames = frames_of(full);
    std::vector<std::size_t> sizes;
    for (auto at = frames.begin() + 4 + 4 + 22 + 4 + 4 + 8; at != frames.end();) {
        EXPECT_EQ("FUN1", std::string(at, at + 4));
        sizes.push_back(number(at + 12));
        at += 20;
        if (sizes.back() != 0) {
            at += static_cast<std::ptrdiff_t>(8 + sizes.back());
        }
    }
    return sizes;
}

TEST(compose_report, stack_memory_is_reported_up_to_a_mebibyte_from_the_inside) {
    fake_stack stack;
    std::vector<std::byte> memory(1 << 20);
    const auto at = reinterpret_cast<DWORD64>(memory.data());
    // Each piece counts with the 8 bytes of its address: 4 pieces fill the budget to the byte.
    constexpr std::size_t piece = (1 << 20) / 4 - 8;
    const step whole{true, 0x140001010, at + piece, at, 1};
    stack.steps = {
        whole, whole, whole, whole, {true, 0x140001011, at + 1, at, 1}, {true, 0x140001012, 0, 0, 0}};
    EXPECT_EQ((std::vector<std::size_t>{piece, piece, piece, piece, 0, 0}),
              memory_sizes(stack.composed(report_kind::full)));
    // What does not fit is left out, and so is everything beyond it, however small.
    stack.frames_seen.clear();
    stack.steps = {
        whole, whole, whole, {true, 0x140001010, at + piece + 1, at, 1}, {true, 0x140001011, at + 1, at, 0}};
    EXPECT_EQ((std::vector<std::size_t>{piece, piece, piece, 0, 0}),
              memory_sizes(stack.composed(report_kind::full)));
    // One frame of the largest size that a report takes, and one byte more.
    for (const std::size_t size : {std::size_t{(1 << 20) - 8}, std::size_t{(1 << 20) - 7}}) {
        stack.frames_seen.clear();
        stack.steps = {{true, 0x140001010, at + size, at, 0}};
        EXPECT_EQ(size == (1 << 20) - 8 ? size : 0, memory_sizes(stack.composed(report_kind::full)).at(0));
    }
}

TEST(compose_report, a_deep_recursion_stays_below_two_mebibytes) {
    fake_stack stack;
    std::byte memory[32]{};
    const auto at = reinterpret_cast<DWORD64>(memory);
    stack.steps.assign(50000, {true, 0x140001010, at + 32, at, 1});
    const bytes report = stack.composed(report_kind::full);
    EXPECT_LT(report.size(), std::size_t{2} << 20);
    const auto sizes = memory_sizes(report);
    EXPECT_EQ(50000U, sizes.size());
    EXPECT_EQ((1 << 20) / 40, std::count(sizes.begin(), sizes.end(), 32));
}

TEST(compose_report, stack_of_which_the_system_knows_nothing_is_left_out) {
    fake_stack stack;
    alignas(0x1000) std::byte memory[0x1000]{};
    const auto at = reinterpret_cast<DWORD64>(memory);
    stack.steps = {{true, 0x140001010, at + 8, at, 0}};
    stack.unknown_to_engine[at] = 0x140000000;
    stack.system_knows_memory = false;
    expected_report expected;
    expected.text("MOD1").u32(11).units(L"lumaris.exe").u32(0x11223344).u32(0x55667788).u64(0x140000000);
    expected.text("FUN1").u64(0x1010).u64(0);
    EXPECT_EQ(expected.get(), frames_of(stack.composed(report_kind::full)));
}

TEST(compose_report, walk_begins_with_the_registers_of_the_crash) {
    fake_stack stack;
    stack.steps = {{true, 0x140001010, 0, 0, 0}};
    stack.composed(report_kind::brief);
    ASSERT_FALSE(stack.frames_seen.empty());
    const STACKFRAME64& first = stack.frames_seen.front();
    EXPECT_EQ(0x140001010U, first.AddrPC.Offset);
    EXPECT_EQ(0x7100U, first.AddrFrame.Offset);
    EXPECT_EQ(0x7000U, first.AddrStack.Offset);
    EXPECT_EQ(0U, first.AddrReturn.Offset);
    for (const ADDRESS64& address : {first.AddrPC, first.AddrFrame, first.AddrStack, first.AddrBStore}) {
        EXPECT_EQ(AddrModeFlat, address.Mode);
        EXPECT_EQ(0, address.Segment);
    }
    EXPECT_EQ(machine, stack.machine_seen);
    EXPECT_EQ(reinterpret_cast<HANDLE>(-1), stack.process_seen);
    EXPECT_EQ(reinterpret_cast<HANDLE>(-2), stack.thread_seen);
    EXPECT_EQ(0, std::memcmp(&stack.first_context_seen, &stack.context(), sizeof(CONTEXT)));
}

#ifdef __aarch64__
// No ARM64 processor has a backing store.
TEST(compose_report, the_link_register_stands_in_for_the_backing_store) {
    fake_stack stack;
    stack.composed(report_kind::brief);
    ASSERT_FALSE(stack.frames_seen.empty());
    EXPECT_EQ(0x140001222U, stack.frames_seen.front().AddrBStore.Offset);
}
#endif

TEST(compose_report, the_walk_does_not_change_the_context_of_the_crash) {
    fake_stack stack;
    stack.steps = {{true, 0x140001010, 0, 0, 1}, {true, 0x140001011, 0, 0, 0}};
    const CONTEXT before = stack.context();
    stack.composed(report_kind::full);
    EXPECT_EQ(0, std::memcmp(&before, &stack.context(), sizeof before));
}

TEST(compose_report, a_first_step_that_fails_still_records_the_faulting_frame) {
    fake_stack stack;
    EXPECT_EQ(brief_module().text("FUN1").u64(0x1010).get(), stack.composed(report_kind::brief));
    EXPECT_EQ(2U, stack.frames_seen.size());
    fake_stack full;
    expected_report expected;
    expected.text("MOD1").u32(11).units(L"lumaris.exe").u32(0x11223344).u32(0x55667788).u64(0x140000000);
    expected.text("FUN1").u64(0x1010).u64(0); // no stack memory without a step
    EXPECT_EQ(expected.get(), frames_of(full.composed(report_kind::full)));
}

TEST(compose_report, a_later_step_that_fails_ends_the_frames) {
    fake_stack stack;
    stack.steps = {{true, 0x140001010, 0, 0, 1}, {false}, {true, 0x140001011, 0, 0, 1}};
    EXPECT_EQ(brief_module().text("FUN1").u64(0x1010).get(), stack.composed(report_kind::brief));
}

TEST(compose_report, a_program_counter_of_zero_ends_the_frames) {
    fake_stack stack;
    stack.steps = {{true, 0x140001010, 0, 0, 1}, {true, 0, 0, 0, 1}, {true, 0x140001011, 0, 0, 1}};
    EXPECT_EQ(brief_module().text("FUN1").u64(0x1010).get(), stack.composed(report_kind::brief));
    stack.steps = {{true, 0, 0, 0, 0}};
    stack.frames_seen.clear();
    EXPECT_EQ(brief_head().get(), stack.composed(report_kind::brief));
}

TEST(compose_report, a_frame_that_returns_to_itself_is_the_last) {
    fake_stack stack;
    stack.steps = {{true, 0x140001010, 0, 0, 0x140001010}, {true, 0x140001011, 0, 0, 1}};
    EXPECT_EQ(brief_module().text("FUN1").u64(0x1010).get(), stack.composed(report_kind::brief));
    EXPECT_EQ(1U, stack.frames_seen.size());
}

TEST(compose_report, code_that_cannot_be_read_ends_the_frames) {
    fake_stack stack;
    stack.steps = {{true, 0x140001010, 0, 0, 1}, {true, 0x140001011, 0, 0, 1}};
    stack.unreadable_code = 0x140001011;
    EXPECT_EQ(brief_module().text("FUN1").u64(0x1010).get(), stack.composed(report_kind::brief));
}

TEST(compose_report, a_module_block_stands_where_the_module_changes) {
    fake_stack stack;
    stack.modules[0x150000000] = {L"C:\\windows\\system32\\kernelbase.dll", 0x99, 0};
    stack.steps = {{true, 0x140001010, 0, 0, 1},
                   {true, 0x140001011, 0, 0, 1},
                   {true, 0x150002000, 0, 0, 1},
                   {true, 0x140001012, 0, 0, 0}};
    auto expected = brief_module();
    expected.text("FUN1").u64(0x1010).text("FUN1").u64(0x1011);
    expected.text("MOD1").u32(14).units(L"kernelbase.dll").u32(0x99).text("FUN1").u64(0x2000);
    expected.text("MOD1").u32(11).units(L"lumaris.exe").u32(0x11223344).text("FUN1").u64(0x1012);
    EXPECT_EQ(expected.get(), stack.composed(report_kind::brief));
}

TEST(compose_report, a_module_without_headers_has_neither_time_stamp_nor_checksum) {
    fake_stack stack;
    stack.modules[0x140000000].has_headers = false;
    expected_report expected;
    expected.text("MOD1").u32(11).units(L"lumaris.exe").u32(0).u32(0).u64(0x140000000);
    expected.text("FUN1").u64(0x1010).u64(0);
    EXPECT_EQ(expected.get(), frames_of(stack.composed(report_kind::full)));
}

TEST(compose_report, a_module_with_a_short_optional_header_has_no_checksum) {
    fake_stack stack;
    stack.modules[0x140000000].optional_header_size = offsetof(IMAGE_OPTIONAL_HEADER, CheckSum) + 3;
    const bytes frames = frames_of(stack.composed(report_kind::full));
    expected_report expected;
    expected.text("MOD1").u32(11).units(L"lumaris.exe").u32(0x11223344).u32(0).u64(0x140000000);
    expected.text("FUN1").u64(0x1010).u64(0);
    EXPECT_EQ(expected.get(), frames);
}

TEST(compose_report, a_module_name_without_a_folder_is_taken_whole) {
    fake_stack stack;
    stack.modules[0x140000000].path = L"lumaris.exe";
    EXPECT_EQ(brief_module().text("FUN1").u64(0x1010).get(), stack.composed(report_kind::brief));
}

// The lock of the loader, for as long as the object lives, on another thread.
class busy_loader {
public:
    busy_loader() { m_locked.get_future().wait(); }
    ~busy_loader() {
        m_done.set_value();
        m_thread.join();
    }

private:
    std::promise<void> m_locked;
    std::promise<void> m_done;
    std::thread m_thread{[this] {
        ULONG_PTR cookie = 0;
        ::LdrLockLoaderLock(0, nullptr, &cookie);
        m_locked.set_value();
        m_done.get_future().wait();
        ::LdrUnlockLoaderLock(0, cookie);
    }};
};

TEST(compose_report, the_faulting_frame_alone_is_told_where_the_loader_is_busy) {
    fake_stack stack;
    stack.steps = {{true, 0x140001020, 0, 0, 1}, {true, 0x140001030, 0, 0, 0}};
    const support::script mapped(support::K32GetMappedFileNameW,
                                 [](HANDLE process, void* address, wchar_t* path, DWORD size) -> DWORD {
                                     EXPECT_EQ(::GetCurrentProcess(), process);
                                     EXPECT_EQ(0x140000000U, reinterpret_cast<DWORD64>(address));
                                     const std::wstring text = L"\\Device\\HarddiskVolume3\\lumaris.exe";
                                     EXPECT_GT(size, text.size());
                                     std::wmemcpy(path, text.c_str(), text.size() + 1);
                                     return static_cast<DWORD>(text.size());
                                 });
    // What is substituted here looks its real function up at first, for which the loader must be free.
    stack.composed(report_kind::brief);
    stack.frames_seen.clear();
    std::vector<ULONGLONG> asked;
    const support::script time(support::GetTickCount64, [&] {
        asked.push_back(1000 + 500 * asked.size());
        return asked.back();
    });
    expected_report expected = brief_module();
    expected.text("FUN1").u64(0x1010);
    bytes reported;
    {
        const busy_loader busy;
        reported = stack.composed(report_kind::brief);
    }
    EXPECT_EQ(expected.get(), reported);
    ASSERT_FALSE(asked.empty());
    EXPECT_EQ(3000U, asked.back()) << "it waits two seconds";
    EXPECT_TRUE(stack.frames_seen.empty()) << "the first walk of a process needs the loader";
}

// A stack with a frame beyond the 256th, and what helps the walk to it.
struct deep_stack : fake_stack {
    deep_stack() {
        steps.assign(257, {true, 0x140001010, 0, 0, 1});
        composed(report_kind::brief);
        EXPECT_EQ(257U + 1, frames_seen.size());
    }
};

TEST(compose_report, a_deep_stack_is_read_without_the_system) {
    const deep_stack stack;
    ASSERT_NE(nullptr, stack.deep_reader);
    const std::string from = "memory";
    std::string to(6, '\0');
    DWORD read = 77;
    EXPECT_TRUE(stack.deep_reader(nullptr, reinterpret_cast<DWORD64>(from.data()), to.data(), 6, &read));
    EXPECT_EQ("memory", to);
    EXPECT_EQ(6U, read);
}

TEST(compose_report, a_deep_stack_that_cannot_be_read_is_no_crash) {
    const deep_stack stack;
    ASSERT_NE(nullptr, stack.deep_reader);
    // Two pages, of which the second cannot be read.
    auto* pages = static_cast<char*>(::VirtualAlloc(nullptr, 8192, MEM_RESERVE, PAGE_NOACCESS));
    ::VirtualAlloc(pages, 4096, MEM_COMMIT, PAGE_READWRITE);
    std::string to(16, '\0');
    for (const char* from : {pages + 4096, pages + 4088, static_cast<char*>(nullptr)}) {
        DWORD read = 77;
        EXPECT_FALSE(stack.deep_reader(nullptr, reinterpret_cast<DWORD64>(from), to.data(), 16, &read));
        EXPECT_EQ(0U, read);
    }
    ::VirtualFree(pages, 0, MEM_RELEASE);
}

TEST(compose_report, a_deep_stack_is_walked_by_the_tables_of_the_process) {
    const deep_stack stack;
    ASSERT_NE(nullptr, stack.deep_table);
    const auto code = reinterpret_cast<DWORD64>(&corvo::errorreport::compose_report);
    const auto own = reinterpret_cast<DWORD64>(::GetModuleHandleW(nullptr));
    EXPECT_EQ(own, stack.deep_base(nullptr, code));
    const auto* entry = static_cast<const RUNTIME_FUNCTION*>(stack.deep_table(nullptr, code));
    ASSERT_NE(nullptr, entry);
    EXPECT_EQ(code, own + entry->BeginAddress);
    EXPECT_EQ(0U, stack.deep_base(nullptr, 0x10)) << "no module is there";
}

TEST(compose_report, a_module_that_the_engine_does_not_know_is_found_by_its_memory) {
    fake_stack stack;
    stack.modules[0x150000000] = {L"C:\\late.dll", 0x99, 0};
    stack.unknown_to_engine[0x150002000] = 0x150000000;
    stack.steps = {{true, 0x150002010, 0, 0, 0}};
    EXPECT_EQ(brief_head().text("MOD1").u32(8).units(L"late.dll").u32(0x99).text("FUN1").u64(0x2010).get(),
              stack.composed(report_kind::brief));
}

TEST(compose_report, code_in_no_module_ends_the_frames) {
    fake_stack stack;
    stack.unknown_to_engine[0x150002000] = 0; // free memory
    stack.steps = {{true, 0x140001010, 0, 0, 1}, {true, 0x150002010, 0, 0, 1}, {true, 0x140001011, 0, 0, 0}};
    EXPECT_EQ(brief_module().text("FUN1").u64(0x1010).get(), stack.composed(report_kind::brief));
}

TEST(compose_report, memory_that_the_system_describes_in_part_ends_the_frames) {
    fake_stack stack;
    stack.unknown_to_engine[0x150002000] = 0x150000000;
    stack.system_knows_memory = false;
    stack.steps = {{true, 0x140001010, 0, 0, 1}, {true, 0x150002010, 0, 0, 1}};
    EXPECT_EQ(brief_module().text("FUN1").u64(0x1010).get(), stack.composed(report_kind::brief));
}

TEST(compose_report, memory_that_is_no_module_fails) {
    fake_stack stack;
    stack.unknown_to_engine[0x160002000] = 0x160000000; // code that was made at run time
    stack.steps = {{true, 0x160002010, 0, 0, 0}};
    corvo::stream::memory_file out;
    try {
        corvo::errorreport::compose_report(report_kind::brief, stack.what(), {}, out);
        FAIL();
    } catch (const pwrap::win_runtime_error& error) {
        EXPECT_THAT(error.what(), testing::StartsWith("GetModuleFileNameW failed: "));
        EXPECT_EQ(126U, error.number());
    }
}

TEST(compose_report, notes_stand_before_the_frames_in_both_kinds) {
    const std::vector<wchar_t> notes{L'a', L'\x10D', L'\0', L'b', L'\0'};
    fake_stack stack;
    auto expected = brief_head();
    expected.text("DOOP").u32(5).u16('a').u16(0x10D).u16(0).u16('b').u16(0);
    expected.text("MOD1").u32(11).units(L"lumaris.exe").u32(0x11223344).text("FUN1").u64(0x1010);
    EXPECT_EQ(expected.get(), stack.composed(report_kind::brief, notes));

    expected_report section;
    section.text("DOOP").u32(5).u16('a').u16(0x10D).u16(0).u16('b').u16(0).text("MOD1");
    fake_stack full;
    const bytes report = full.composed(report_kind::full, notes);
    EXPECT_NE(report.end(),
              std::search(report.begin(), report.end(), section.get().begin(), section.get().end()));
}

TEST(compose_report, without_notes_there_is_no_notes_section) {
    const bytes tag{'D', 'O', 'O', 'P'};
    for (const report_kind kind : {report_kind::brief, report_kind::full}) {
        fake_stack stack;
        const bytes report = stack.composed(kind);
        EXPECT_EQ(report.end(), std::search(report.begin(), report.end(), tag.begin(), tag.end()));
    }
}

TEST(compose_report, more_parameters_than_a_record_holds_are_not_read) {
    fake_stack stack;
    stack.record().NumberParameters = 16;
    const bytes report = stack.composed(report_kind::brief);
    ASSERT_GT(report.size(), 26U);
    EXPECT_EQ(15, report[22]);
}

TEST(compose_report, a_walk_that_goes_in_a_circle_ends) {
    fake_stack stack;
    stack.endless = true;
    stack.steps = {{true, 0x140001010, 0, 0, 0x140001011}, {true, 0x140001011, 0, 0, 0x140001010}};
    const bytes report = stack.composed(report_kind::brief);
    EXPECT_EQ(100000U, stack.frames_seen.size());
    EXPECT_EQ(brief_module().get().size() + 100000U * 12, report.size());
}

TEST(compose_report, a_chain_of_records_that_goes_in_a_circle_ends) {
    fake_stack stack;
    stack.record().ExceptionRecord = &stack.record();
    const bytes report = stack.composed(report_kind::full);
    ASSERT_GE(report.size(), 10U + 101 * 20);
    EXPECT_EQ(100, report[6]);
    const bytes record(report.begin() + 10, report.begin() + 30);
    EXPECT_EQ(record, bytes(report.begin() + 10 + 99 * 20, report.begin() + 10 + 100 * 20));
    EXPECT_NE(record, bytes(report.begin() + 10 + 100 * 20, report.begin() + 10 + 101 * 20));
}

TEST(compose_report, is_a_zlib_stream_at_the_best_compression) {
    fake_stack stack;
    corvo::stream::memory_file out;
    corvo::errorreport::compose_report(report_kind::brief, stack.what(), {}, out);
    ASSERT_GE(out.size(), 2U);
    EXPECT_EQ(0x78, out.data()[0]);
    EXPECT_EQ(0xDA, out.data()[1]);
}

class full_target : public corvo::stream::basic {
public:
    std::size_t write(const void*, std::size_t) override {
        m_state = corvo::stream::state_t::fail;
        ::SetLastError(ERROR_DISK_FULL);
        return 0;
    }
};

TEST(compose_report, a_target_that_fails_is_reported_when_the_compression_is_finished) {
    fake_stack stack;
    full_target target;
    try {
        corvo::errorreport::compose_report(report_kind::full, stack.what(), {}, target);
        FAIL();
    } catch (const std::system_error& error) {
        EXPECT_THAT(error.what(), testing::StartsWith("failed to flush compressed stream: "));
        EXPECT_EQ(112, error.code().value());
    }
}

} // namespace
