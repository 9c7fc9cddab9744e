// Lets the threads of the error-report component meet at a moment that the caller chooses: the start-up thread, which sends what earlier
// crashes left, and threads that note, crash, install, remove and end the process meanwhile.
//
//     races.exe DELAY NOTERS CRASHERS DEED...
//
//     DELAY     microseconds between the installation and the first deed
//     NOTERS    threads that note without a pause, beginning before the installation
//     CRASHERS  threads that crash with the first deed, all at once
//     DEED      what the main thread does, in turn:
//               note        notes something
//               wait        waits for the start-up thread
//               remove      removes the component
//               install     installs it
//               pause       10 ms
//               fault, throw, abort, invalid
//                           crashes in this way
//               stray       an exception that is not planted, and is handled: to show that it is seen
//               exit        std::exit, which removes the component
//               end         ExitProcess, which does not
//               sleep       waits for a crash of another thread to end the process, a minute at the most
//
// Main that comes to the end of its deeds returns 0. A crash ends the process with 0xFFFFFFFF. The program writes a line for each
// deed, and one for each exception that is not planted, wherever it is raised and whoever handles it; the component may have none of its own.

#include "errorreport/component.h"

#include <windows.h>

#include <shellapi.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <stdexcept>
#include <string_view>
#include <thread>

namespace {

// In the first 64 KB, where nothing is, and no address of a mistake's.
constexpr ULONG_PTR nowhere = 0xBAD0;
std::atomic<bool> go{false};

// Goes out at once, in one piece, and without the C library, whose locks a thread that is being ended may hold.
void write_line(const char* text, std::size_t length) {
    DWORD written = 0;
    ::WriteFile(::GetStdHandle(STD_OUTPUT_HANDLE), text, static_cast<DWORD>(length), &written, nullptr);
}

// "exception CODE ADDRESS OFFSET THREAD" for each that is none of ours. The offset is that in the program, or 0 for one outside of it.
LONG CALLBACK watch(EXCEPTION_POINTERS* exception) {
    const EXCEPTION_RECORD& record = *exception->ExceptionRecord;
    const bool of_cpp =
        (record.ExceptionCode & 0xFCFFFFFF) == 0x20474343; // thrown, and on the way to its handler
    const bool of_component = (record.ExceptionCode & 0xFFFFFF00) == 0xE0544D00;
    const bool planted = record.ExceptionCode == EXCEPTION_ACCESS_VIOLATION && record.NumberParameters == 2 &&
                         record.ExceptionInformation[1] == nowhere;
    if (of_cpp || of_component || planted) {
        return EXCEPTION_CONTINUE_SEARCH;
    }
    const auto address = reinterpret_cast<ULONG_PTR>(record.ExceptionAddress);
    const auto base = reinterpret_cast<ULONG_PTR>(::GetModuleHandleW(nullptr));
    std::array<char, 128> line;
    const int length = std::snprintf(line.data(), line.size(), "exception %08lX %llX %llX %lu\n",
                                     record.ExceptionCode, static_cast<unsigned long long>(address),
                                     static_cast<unsigned long long>(address - base), ::GetCurrentThreadId());
    write_line(line.data(), static_cast<std::size_t>(length));
    return EXCEPTION_CONTINUE_SEARCH;
}

[[gnu::noinline]] void plant() {
    *reinterpret_cast<volatile int*>(nowhere) =
        1; // NOLINT(performance-no-int-to-ptr): the address is the point
}

corvo::errorreport::component& the_component() {
    static corvo::errorreport::component& made = *new corvo::errorreport::component;
    return made;
}

void note_without_a_pause(int number) {
    std::array<wchar_t, 40> text;
    for (unsigned int count = 0;; ++count) {
        std::swprintf(text.data(), text.size(), L"thread %d, note %u", number, count);
        the_component().add_note(text.data());
        ::SwitchToThread();
    }
}

void crash_at_the_word() {
    while (!go) {
        ::SwitchToThread();
    }
    plant();
}

void wait_microseconds(long delay) {
    LARGE_INTEGER frequency;
    LARGE_INTEGER begin;
    LARGE_INTEGER now;
    ::QueryPerformanceFrequency(&frequency);
    ::QueryPerformanceCounter(&begin);
    do {
        ::SwitchToThread();
        ::QueryPerformanceCounter(&now);
    } while ((now.QuadPart - begin.QuadPart) * 1000000 / frequency.QuadPart < delay);
}

[[gnu::noinline]] void raise_another() {
    ::RaiseException(0xE0000BAD, 0, 0, nullptr);
}

[[gnu::noinline]] void handle_another() {
    __try {
        raise_another();
    } __except (EXCEPTION_EXECUTE_HANDLER) {
    }
}

bool perform(std::wstring_view deed) {
    if (deed == L"note") {
        the_component().add_note(L"main");
    } else if (deed == L"wait") {
        the_component().wait_for_start_up_thread();
    } else if (deed == L"remove") {
        the_component().uninstall();
    } else if (deed == L"install") {
        the_component().install();
    } else if (deed == L"pause") {
        ::Sleep(10);
    } else if (deed == L"fault") {
        plant();
    } else if (deed == L"throw") {
        throw std::runtime_error("planted");
    } else if (deed == L"abort") {
        std::abort();
    } else if (deed == L"invalid") {
        std::fclose(nullptr);
    } else if (deed == L"stray") {
        handle_another();
    } else if (deed == L"exit") {
        std::exit(0);
    } else if (deed == L"end") {
        ::ExitProcess(0);
    } else if (deed == L"sleep") {
        ::Sleep(60000);
    } else {
        return false;
    }
    return true;
}

} // namespace

int WINAPI wWinMain(HINSTANCE, HINSTANCE, wchar_t*, int) {
    int count = 0;
    wchar_t** arguments = ::CommandLineToArgvW(::GetCommandLineW(), &count);
    if (count < 4) {
        return 2;
    }
    ::AddVectoredExceptionHandler(1, watch);
    for (int number = 0; number < std::wcstol(arguments[2], nullptr, 10); ++number) {
        std::thread(note_without_a_pause, number).detach();
    }
    for (int number = 0; number < std::wcstol(arguments[3], nullptr, 10); ++number) {
        std::thread(crash_at_the_word).detach();
    }
    the_component().install();
    std::atexit([] { the_component().uninstall(); });
    wait_microseconds(std::wcstol(arguments[1], nullptr, 10));
    go = true;
    for (int index = 4; index < count; ++index) {
        if (!perform(arguments[index])) {
            return 2;
        }
    }
    return 0;
}
