#include "tests/endurance/measures.h"

#include <windows.h>

#include <psapi.h>
#include <tlhelp32.h>
#include <winternl.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <new>

namespace {

std::atomic<std::size_t> objects{0};
std::atomic<std::size_t> object_bytes{0};

// In front of each object: how long it is. As long as the alignment that new promises.
constexpr std::size_t head = __STDCPP_DEFAULT_NEW_ALIGNMENT__;

} // namespace

// Every object of the program goes through these; the C++ library's other forms call them.
void* operator new(std::size_t size) {
    auto* const block = static_cast<std::byte*>(std::malloc(size + head));
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    ::new (block) std::size_t(size);
    ++objects;
    object_bytes += size;
    return block + head;
}

void operator delete(void* object) noexcept {
    if (object != nullptr) {
        std::byte* const block = static_cast<std::byte*>(object) - head;
        --objects;
        object_bytes -= *reinterpret_cast<const std::size_t*>(block);
        std::free(block);
    }
}

void operator delete(void* object, std::size_t) noexcept {
    operator delete(object);
}

namespace endurance {
namespace {

void require(bool done, const char* what) {
    if (!done) {
        std::printf("cannot measure: %s, error %lu\n", what, ::GetLastError());
        std::exit(3);
    }
}

// One entry of what the system knows of all handles; the headers do not have it.
struct handle_entry {
    ULONG process;
    UCHAR type;
    UCHAR flags;
    USHORT value;
    void* object;
    ULONG access;
};

struct handle_table {
    ULONG count;
    handle_entry entries[1];
};

constexpr auto system_handle_information = static_cast<SYSTEM_INFORMATION_CLASS>(16);

// GetProcessHandleCount is 0 if nobody has written it.
std::size_t count_handles() {
    static std::array<unsigned char, 1 << 20> buffer;
    ULONG size = 0;
    require(::NtQuerySystemInformation(system_handle_information, buffer.data(), buffer.size(), &size) == 0,
            "NtQuerySystemInformation");
    const auto& table = *reinterpret_cast<const handle_table*>(buffer.data());
    std::size_t count = 0;
    for (ULONG index = 0; index < table.count; ++index) {
        count += table.entries[index].process == ::GetCurrentProcessId() ? 1 : 0;
    }
    require(count > 0, "no handle is known");
    return count;
}

std::size_t count_threads() {
    const HANDLE snapshot = ::CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
    require(snapshot != INVALID_HANDLE_VALUE, "CreateToolhelp32Snapshot");
    std::size_t count = 0;
    THREADENTRY32 entry{};
    entry.dwSize = sizeof entry;
    for (BOOL found = ::Thread32First(snapshot, &entry); found; found = ::Thread32Next(snapshot, &entry)) {
        count += entry.th32OwnerProcessID == ::GetCurrentProcessId() ? 1 : 0;
    }
    ::CloseHandle(snapshot);
    return count;
}

std::size_t count_private_bytes() {
    std::size_t bytes = 0;
    MEMORY_BASIC_INFORMATION region{};
    for (const char* at = nullptr; ::VirtualQuery(at, &region, sizeof region) == sizeof region;
         at = static_cast<const char*>(region.BaseAddress) + region.RegionSize) {
        bytes += region.State == MEM_COMMIT && region.Type == MEM_PRIVATE ? region.RegionSize : 0;
    }
    require(bytes > 0, "no page is known");
    return bytes;
}

void walk_heaps(measures& found) {
    std::array<HANDLE, 256> heaps;
    found.heaps = ::GetProcessHeaps(static_cast<DWORD>(heaps.size()), heaps.data());
    require(found.heaps > 0 && found.heaps <= heaps.size(), "GetProcessHeaps");
    for (std::size_t index = 0; index < found.heaps; ++index) {
        ::HeapLock(heaps[index]);
        PROCESS_HEAP_ENTRY entry{};
        while (::HeapWalk(heaps[index], &entry)) {
            if ((entry.wFlags & PROCESS_HEAP_ENTRY_BUSY) != 0) {
                found.heap_bytes += entry.cbData;
            }
        }
        const DWORD error = ::GetLastError();
        ::HeapUnlock(heaps[index]);
        require(error == ERROR_NO_MORE_ITEMS, "HeapWalk");
    }
}

} // namespace

measures measure() {
    measures found;
    found.handles = count_handles();
    found.threads = count_threads();
    found.objects = objects;
    found.object_bytes = object_bytes;
    walk_heaps(found);
    found.private_bytes = count_private_bytes();
    std::array<HMODULE, 256> modules;
    DWORD size = 0;
    require(::EnumProcessModules(::GetCurrentProcess(), modules.data(), sizeof modules, &size),
            "EnumProcessModules");
    found.modules = size / sizeof(HMODULE);
    return found;
}

void print(const char* label, const measures& found) {
    std::printf(
        "%s handles=%zu threads=%zu objects=%zu object_bytes=%zu heaps=%zu heap_bytes=%zu private_bytes=%zu "
        "modules=%zu\n",
        label, found.handles, found.threads, found.objects, found.object_bytes, found.heaps, found.heap_bytes,
        found.private_bytes, found.modules);
    std::fflush(stdout);
}

} // namespace endurance
