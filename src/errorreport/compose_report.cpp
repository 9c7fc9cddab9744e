#include "errorreport/compose_report.h"

#include "errorreport/processor.h"
#include "platform/errors.h"
#include "platform/loader_lock.h"
#include "platform/system_strings.h"
#include "stream/zlib_writer.h"

#include <dbghelp.h>
#include <psapi.h>

#include <algorithm>
#include <cstring>

namespace corvo::errorreport {
namespace {

// wchar_t is a UTF-16 unit here.
std::u16string_view as_units(std::span<const wchar_t> text) noexcept {
    return {reinterpret_cast<const char16_t*>(text.data()), text.size()};
}

exception_record described(const EXCEPTION_RECORD& record) noexcept {
    static_assert(sizeof(ULONG_PTR) == sizeof(std::uint64_t));
    return {record.ExceptionCode,
            record.ExceptionFlags,
            reinterpret_cast<std::uint64_t>(record.ExceptionAddress),
            {record.ExceptionInformation,
             std::min<std::size_t>(record.NumberParameters, EXCEPTION_MAXIMUM_PARAMETERS)}};
}

// Neither the chain nor the stack of a process that can be reported is that long; damaged ones may lead in a circle.
constexpr std::uint32_t most_records = 100;
constexpr std::uint32_t most_frames = 100000;

// How many bytes of stack memory a report holds at most, each piece counted with its address: a deep recursion must neither take long nor
// become a report that nobody can read.
constexpr std::size_t most_stack_memory = 1048576;

void write_exceptions(stream::basic& out, report_kind kind, const EXCEPTION_RECORD& first) {
    if (kind == report_kind::brief) {
        write_record(out, described(first));
        return;
    }
    std::uint32_t count = 0;
    for (const EXCEPTION_RECORD* each = &first; each != nullptr && count < most_records;
         each = each->ExceptionRecord) {
        ++count;
    }
    write_record_count(out, count);
    for (const EXCEPTION_RECORD* each = &first; count != 0; each = each->ExceptionRecord, --count) {
        write_record(out, described(*each));
    }
}

// What the system knows of the memory at an address; false if it knows nothing.
bool query(DWORD64 address, MEMORY_BASIC_INFORMATION& memory) noexcept {
    return ::VirtualQuery(reinterpret_cast<const void*>(address), &memory, sizeof memory) >= 16;
}

// The base of the module that the address lies in, 0 for none. The walk's own helper is asked first.
DWORD64 module_base(PGET_MODULE_BASE_ROUTINE64 helper, HANDLE process, DWORD64 address) noexcept {
    if (const DWORD64 base = helper(process, address)) {
        return base;
    }
    MEMORY_BASIC_INFORMATION
    memory{}; // the symbol engine may know nothing: it is not there, or the module came later
    return query(address, memory) ? reinterpret_cast<DWORD64>(memory.AllocationBase) : 0;
}

bool readable(DWORD64 begin, DWORD64 end) noexcept {
    constexpr DWORD forbidden = PAGE_NOACCESS | PAGE_GUARD | PAGE_EXECUTE; // the last one allows nothing else
    MEMORY_BASIC_INFORMATION memory{};
    for (DWORD64 at = begin; at < end;) {
        if (!query(at, memory) || memory.State != MEM_COMMIT || (memory.Protect & forbidden) != 0) {
            return false;
        }
        at = reinterpret_cast<DWORD64>(memory.BaseAddress) + memory.RegionSize;
    }
    return true;
}

// The memory between the stack pointer and the frame pointer. Empty if they do not enclose any, and if what lies between
// them cannot be read: code that uses the frame pointer for something else leaves anything in it.
std::span<const std::byte> stack_memory(const STACKFRAME64& frame) noexcept {
    const DWORD64 begin = frame.AddrStack.Offset;
    const DWORD64 end = frame.AddrFrame.Offset;
    if (begin == 0 || end == 0 || begin >= end || !readable(begin, end)) {
        return {};
    }
    return {reinterpret_cast<const std::byte*>(begin), static_cast<std::size_t>(end - begin)};
}

// How much stack memory the report still has room for.
class memory_budget {
public:
    // The memory to be written for a frame. After the first frame that does not fit no frame has any, so that a report always holds the
    // complete inner part of the stack.
    std::span<const std::byte> take(std::span<const std::byte> memory) noexcept {
        const std::size_t needed = memory.empty() ? 0 : memory.size() + sizeof(std::uint64_t);
        if (needed > m_left) {
            m_left = 0;
            return {};
        }
        m_left -= needed;
        return memory;
    }
    [[nodiscard]] bool used_up() const noexcept { return m_left == 0; }

private:
    std::size_t m_left = most_stack_memory;
};

// How long the walk waits for the lock of the system's loader, in milliseconds. Whoever holds it may wait for what the crashed thread holds, or
// be gone.
constexpr DWORD loader_limit = 2000;

// The path of the file that a module was loaded from. Throws pwrap::win_runtime_error if it has none.
std::wstring module_path(DWORD64 base, bool loader_is_free) {
    std::wstring path;
    if (loader_is_free) {
        if (pwrap::GetModuleFileNameW(reinterpret_cast<HMODULE>(base), path) == 0) {
            pwrap::throw_last<pwrap::win_runtime_error>("GetModuleFileNameW failed");
        }
        return path;
    }
    // The memory knows its file, too, under another path.
    constexpr std::size_t longest_path = 1024;
    path.resize(longest_path);
    const DWORD length = ::K32GetMappedFileNameW(::GetCurrentProcess(), reinterpret_cast<void*>(base),
                                                 path.data(), static_cast<DWORD>(path.size()));
    if (length == 0) {
        pwrap::throw_last<pwrap::win_runtime_error>("GetMappedFileNameW failed");
    }
    path.resize(std::min<std::size_t>(length, path.size()));
    return path;
}

void describe_module(stream::basic& out, report_kind kind, DWORD64 base, bool loader_is_free) {
    const std::wstring path = module_path(base, loader_is_free);
    module_description module{.file_name = {}, .time_stamp = 0, .checksum = 0, .base = base};
    const std::wstring name = path.substr(path.rfind(L'\\') + 1);
    module.file_name = as_units(name);
    if (const IMAGE_NT_HEADERS* headers = ::ImageNtHeader(reinterpret_cast<void*>(base))) {
        module.time_stamp = headers->FileHeader.TimeDateStamp;
        constexpr std::size_t needed =
            offsetof(IMAGE_OPTIONAL_HEADER, CheckSum) + sizeof headers->OptionalHeader.CheckSum;
        if (headers->FileHeader.SizeOfOptionalHeader >= needed) {
            module.checksum = headers->OptionalHeader.CheckSum;
        }
    }
    write_module(out, kind, module);
}

ADDRESS64 flat(DWORD64 offset) noexcept {
    return {offset, 0, AddrModeFlat};
}

// What a walk asks for on its way.
struct walk_helpers {
    PREAD_PROCESS_MEMORY_ROUTINE64 read_memory;
    PFUNCTION_TABLE_ACCESS_ROUTINE64 function_table;
    PGET_MODULE_BASE_ROUTINE64 module_base;
};

__attribute__((noinline)) void copy(void* to, const void* from, std::size_t size) {
    std::memcpy(to, from, size);
}

// Nobody knows whether the memory can be read; what comes of trying does not leave this function. No objects with destructors may live in
// a function that holds __try.
BOOL CALLBACK read_own_memory(HANDLE, DWORD64 from, void* to, DWORD size, DWORD* read) {
    *read = 0;
    __try {
        copy(to, reinterpret_cast<const void*>(from), size);
    } __except (EXCEPTION_EXECUTE_HANDLER) {
        return FALSE;
    }
    *read = size;
    return TRUE;
}

void* CALLBACK own_function_table(HANDLE, DWORD64 address) {
    DWORD64 base = 0;
    return ::RtlLookupFunctionEntry(address, &base, nullptr);
}

DWORD64 CALLBACK own_module_base(HANDLE, DWORD64 address) {
    DWORD64 base = 0;
    ::RtlLookupFunctionEntry(address, &base, nullptr);
    return base;
}

// Beyond this depth the walk is helped by what the process knows of itself. No stack but that of a recursion without an end is deeper, and the
// system and the symbol engine, which are asked a dozen times a frame, took eight seconds for 50,000 frames, for each of the reports.
constexpr std::uint32_t ordinary_depth = 256;

walk_helpers helpers_at(std::uint32_t depth) noexcept {
    if (depth < ordinary_depth) {
        return {nullptr, ::SymFunctionTableAccess64, ::SymGetModuleBase64};
    }
    return {read_own_memory, own_function_table, own_module_base};
}

void walk_stack(stream::basic& out, report_kind kind, const crash& what) {
    CONTEXT context = *what.exception->ContextRecord; // the walk changes it
    const frame_registers start = frame_of(context);
    STACKFRAME64 frame{};
    frame.AddrPC = flat(start.program_counter);
    frame.AddrFrame = flat(start.frame_pointer);
    frame.AddrStack = flat(start.stack_pointer);
    frame.AddrBStore = flat(start.backing_store);

    DWORD64 written_module = 0; // none
    std::uint32_t frames = 0;
    memory_budget budget;
    // The first walk of a process and the names of modules need the loader. Without it only the faulting frame is reported.
    const bool loader_is_free{pwrap::loader_lock(loader_limit)};
    do {
        const walk_helpers helpers = helpers_at(frames);
        const bool walked =
            loader_is_free &&
            ::StackWalk64(machine_type, what.process, what.thread, &frame, &context, helpers.read_memory,
                          helpers.function_table, helpers.module_base, nullptr) != FALSE;
        // The first step may fail: the faulting frame is known from the context, and is always reported.
        if (!walked && written_module != 0) {
            return;
        }
        const DWORD64 program_counter = frame.AddrPC.Offset;
        if (program_counter == 0) {
            return;
        }
        const DWORD64 base = module_base(helpers.module_base, what.process, program_counter);
        if (base == 0 || ::IsBadCodePtr(reinterpret_cast<FARPROC>(program_counter)) != FALSE) {
            return;
        }
        if (base != written_module) {
            describe_module(out, kind, base, loader_is_free);
            written_module = base;
        }
        write_function(out, program_counter - base);
        if (kind == report_kind::full) {
            const bool tells_memory = walked && !budget.used_up();
            write_stack(out, frame.AddrStack.Offset,
                        budget.take(tells_memory ? stack_memory(frame) : std::span<const std::byte>()));
        }
    } while (frame.AddrPC.Offset != frame.AddrReturn.Offset && ++frames < most_frames);
}

} // namespace

void compose_report(report_kind kind, const crash& what, std::span<const wchar_t> notes,
                    stream::basic& target) {
    zlib_writer out(target);
    write_header(out, kind, machine_type);
    write_exceptions(out, kind, *what.exception->ExceptionRecord);
    if (kind == report_kind::full) {
        write_processor_context(out, *what.exception->ContextRecord);
    }
    write_notes(out, as_units(notes));
    walk_stack(out, kind, what);
}

} // namespace corvo::errorreport
