// What the Windows halves of the benchmarks share: a clock, and the line that bench/run.py reads.
#pragma once

#include <windows.h>

#include <psapi.h>

#include <cstdio>

namespace bench {

// Seconds since construction.
class stopwatch {
public:
    stopwatch() noexcept {
        ::QueryPerformanceFrequency(&m_frequency);
        ::QueryPerformanceCounter(&m_start);
    }
    double seconds() const noexcept {
        LARGE_INTEGER now;
        ::QueryPerformanceCounter(&now);
        return static_cast<double>(now.QuadPart - m_start.QuadPart) /
               static_cast<double>(m_frequency.QuadPart);
    }

private:
    LARGE_INTEGER m_frequency{};
    LARGE_INTEGER m_start{};
};

// Processor time of this process until now, of all its threads, in and outside of the system.
inline double processor_seconds() noexcept {
    FILETIME made{};
    FILETIME ended{};
    FILETIME kernel{};
    FILETIME user{};
    ::GetProcessTimes(::GetCurrentProcess(), &made, &ended, &kernel, &user);
    const auto ticks = [](const FILETIME& time) {
        return static_cast<double>(static_cast<unsigned long long>(time.dwHighDateTime) << 32 |
                                   time.dwLowDateTime);
    };
    return (ticks(kernel) + ticks(user)) / 1e7;
}

// Writes the measurement to `file` as JSON: the programs have no console of their own in the bed.
inline int report(const wchar_t* file, bool right, double seconds) {
    PROCESS_MEMORY_COUNTERS memory{};
    ::K32GetProcessMemoryInfo(::GetCurrentProcess(), &memory, sizeof memory);
    std::FILE* out = ::_wfopen(file, L"wb");
    if (out == nullptr) {
        return 2;
    }
    std::fprintf(out,
                 "{\"right\": %s, \"seconds\": %.6f, \"processor_seconds\": %.6f, \"peak_bytes\": %llu}\n",
                 right ? "true" : "false", seconds, processor_seconds(),
                 static_cast<unsigned long long>(memory.PeakWorkingSetSize));
    std::fclose(out);
    return right ? 0 : 1;
}

} // namespace bench
