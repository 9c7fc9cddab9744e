// A crash with a stack that a test makes up: what the symbol engine and the system say about it is scripted, and the report can
// be read back.
//
// Lives on the test's stack; the scripts hold for its life.
#pragma once

#include "errorreport/compose_report.h"
#include "stream/memory_file.h"
#include "tests/support/inflated.h"
#include "tests/support/substitutes.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <string>
#include <vector>

namespace test {

using bytes = std::vector<unsigned char>;

// Builds the expected bytes of a report.
class expected_report {
public:
    expected_report& text(const char* tag) {
        m_bytes.insert(m_bytes.end(), tag, tag + std::strlen(tag));
        return *this;
    }
    expected_report& u16(std::uint64_t value) { return number(value, 2); }
    expected_report& u32(std::uint64_t value) { return number(value, 4); }
    expected_report& u64(std::uint64_t value) { return number(value, 8); }
    expected_report& units(const std::wstring& text) {
        for (const wchar_t unit : text) {
            u16(unit);
        }
        return *this;
    }
    expected_report& raw(const bytes& data) {
        m_bytes.insert(m_bytes.end(), data.begin(), data.end());
        return *this;
    }
    const bytes& get() const { return m_bytes; }

private:
    expected_report& number(std::uint64_t value, std::size_t size) {
        for (std::size_t i = 0; i < size; ++i) {
            m_bytes.push_back(static_cast<unsigned char>(value >> (8 * i)));
        }
        return *this;
    }
    bytes m_bytes;
};

// One answer of the walk.
struct step {
    bool walked = true;
    DWORD64 program_counter = 0;
    DWORD64 frame_pointer = 0;
    DWORD64 stack_pointer = 0;
    DWORD64 return_address = 0;
};

struct module {
    std::wstring path;
    DWORD time_stamp = 0;
    DWORD checksum = 0;
    bool has_headers = true;
    WORD optional_header_size = sizeof(IMAGE_OPTIONAL_HEADER);
};

class fake_stack {
public:
    fake_stack() {
        m_record.ExceptionCode = EXCEPTION_ACCESS_VIOLATION;
        m_record.ExceptionAddress = reinterpret_cast<void*>(0x140001010);
        m_context.ContextFlags = CONTEXT_FULL;
#ifdef __aarch64__
        m_context.Pc = 0x140001010;
        m_context.Fp = 0x7100;
        m_context.Sp = 0x7000;
        m_context.Lr = 0x140001222;
#else
        m_context.Rip = 0x140001010;
        m_context.Rbp = 0x7100;
        m_context.Rsp = 0x7000;
#endif
        modules[0x140000000] = {L"C:\\Programs\\lumaris.exe", 0x11223344, 0x55667788};
    }

    bytes composed(corvo::errorreport::report_kind kind, const std::vector<wchar_t>& notes = {}) {
        corvo::stream::memory_file out;
        corvo::errorreport::compose_report(kind, what(), notes, out);
        const auto inflated = support::inflated(bytes(out.data(), out.data() + out.size()));
        EXPECT_TRUE(inflated.has_value()) << "not a whole zlib stream";
        return inflated.value_or(bytes());
    }

    corvo::errorreport::crash what() {
        m_pointers = {&m_record, &m_context};
        return {&m_pointers, reinterpret_cast<HANDLE>(-2), reinterpret_cast<HANDLE>(-1)};
    }

    EXCEPTION_RECORD& record() { return m_record; }
    CONTEXT& context() { return m_context; }

    std::vector<step> steps;
    bool endless = false;              // the steps are gone through again and again
    std::map<DWORD64, module> modules; // by base; each of 64 KB
    std::map<DWORD64, DWORD64>
        unknown_to_engine;           // page address to allocation base, for code that only the system knows
    bool system_knows_memory = true; // VirtualQuery gives a whole description
    DWORD64 unreadable_code = 0;
    std::vector<STACKFRAME64> frames_seen; // as the walk got them
    DWORD machine_seen = 0;
    HANDLE process_seen = nullptr;
    HANDLE thread_seen = nullptr;
    CONTEXT first_context_seen{};
    // What the walk got for the frames beyond the 256th.
    PREAD_PROCESS_MEMORY_ROUTINE64 deep_reader = nullptr;
    PFUNCTION_TABLE_ACCESS_ROUTINE64 deep_table = nullptr;
    PGET_MODULE_BASE_ROUTINE64 deep_base = nullptr;

private:
    static DWORD64 base_of(DWORD64 address) { return address & ~DWORD64{0xFFFF}; }

    BOOL walk(DWORD machine, HANDLE process, HANDLE thread, STACKFRAME64* frame, void* context) {
        if (frames_seen.empty()) {
            std::memcpy(&first_context_seen, context, sizeof first_context_seen);
        }
        std::memset(context, 0xEE, sizeof(CONTEXT)); // it is a working copy
        machine_seen = machine;
        process_seen = process;
        thread_seen = thread;
        frames_seen.push_back(*frame);
        const std::size_t index = frames_seen.size() - 1;
        if (!endless && index >= steps.size()) {
            return FALSE;
        }
        const step& next = steps[index % steps.size()];
        if (next.walked) {
            frame->AddrPC.Offset = next.program_counter;
            frame->AddrFrame.Offset = next.frame_pointer;
            frame->AddrStack.Offset = next.stack_pointer;
            frame->AddrReturn.Offset = next.return_address;
        }
        return next.walked ? TRUE : FALSE;
    }

    SIZE_T describe(const void* address, MEMORY_BASIC_INFORMATION* memory, SIZE_T size) {
        const auto at = reinterpret_cast<DWORD64>(address);
        const auto code = unknown_to_engine.find(at & ~DWORD64{0xFFF});
        if (code == unknown_to_engine.end()) {
            return support::VirtualQuery.real(address, memory, size);
        }
        memory->AllocationBase = reinterpret_cast<void*>(code->second);
        return system_knows_memory ? size : 15;
    }

    PFUNCTION_TABLE_ACCESS_ROUTINE64 first_table = nullptr;
    PGET_MODULE_BASE_ROUTINE64 first_base = nullptr;

    EXCEPTION_RECORD m_record{};
    CONTEXT m_context{};
    EXCEPTION_POINTERS m_pointers{};
    IMAGE_NT_HEADERS m_headers{};

    support::script<decltype(::StackWalk64)> m_walk{
        support::StackWalk64, [this](DWORD machine, HANDLE process, HANDLE thread, STACKFRAME64* frame,
                                     void* context, auto reader, auto table, auto base, auto translator) {
            const bool deep = frames_seen.size() >= 256;
            EXPECT_EQ(deep, reader != nullptr) << "the system reads an ordinary stack";
            EXPECT_NE(nullptr, table); // the symbol engine's own, but for a deep stack
            EXPECT_NE(nullptr, base);
            if (deep) {
                EXPECT_NE(first_table, table);
                EXPECT_NE(first_base, base);
                deep_reader = reader;
                deep_table = table;
                deep_base = base;
            } else {
                EXPECT_TRUE(first_table == nullptr || first_table == table);
                EXPECT_TRUE(first_base == nullptr || first_base == base);
                first_table = table;
                first_base = base;
            }
            EXPECT_EQ(nullptr, translator);
            return walk(machine, process, thread, frame, context);
        }};
    support::script<decltype(::SymGetModuleBase64)> m_base{
        support::SymGetModuleBase64, [this](HANDLE, DWORD64 address) -> DWORD64 {
            return modules.contains(base_of(address)) &&
                           !unknown_to_engine.contains(address & ~DWORD64{0xFFF})
                       ? base_of(address)
                       : 0;
        }};
    support::script<decltype(::VirtualQuery)> m_query{
        support::VirtualQuery, [this](const void* address, MEMORY_BASIC_INFORMATION* memory, SIZE_T size) {
            return describe(address, memory, size);
        }};
    support::script<decltype(::IsBadCodePtr)> m_bad{support::IsBadCodePtr, [this](FARPROC code) -> BOOL {
                                                        return reinterpret_cast<DWORD64>(code) ==
                                                               unreadable_code;
                                                    }};
    support::script<decltype(::ImageNtHeader)> m_image{
        support::ImageNtHeader, [this](void* base) -> IMAGE_NT_HEADERS* {
            const auto found = modules.find(reinterpret_cast<DWORD64>(base));
            if (found == modules.end() || !found->second.has_headers) {
                return nullptr;
            }
            m_headers.FileHeader.TimeDateStamp = found->second.time_stamp;
            m_headers.FileHeader.SizeOfOptionalHeader = found->second.optional_header_size;
            m_headers.OptionalHeader.CheckSum = found->second.checksum;
            return &m_headers;
        }};
    support::script<decltype(::GetModuleFileNameW)> m_name{
        support::GetModuleFileNameW, [this](HMODULE module, wchar_t* path, DWORD size) -> DWORD {
            const auto found = modules.find(reinterpret_cast<DWORD64>(module));
            if (found == modules.end()) {
                ::SetLastError(ERROR_MOD_NOT_FOUND);
                return 0;
            }
            const std::wstring& text = found->second.path;
            if (text.size() >= size) {
                ::SetLastError(ERROR_INSUFFICIENT_BUFFER);
                return size;
            }
            std::memcpy(path, text.c_str(), (text.size() + 1) * sizeof(wchar_t));
            ::SetLastError(ERROR_SUCCESS);
            return static_cast<DWORD>(text.size());
        }};
};

} // namespace test
