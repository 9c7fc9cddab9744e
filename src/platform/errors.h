// The error types for failed platform calls. Each carries the number that the system returned and a message: the
// caller's literal, ": ", and the system's text for the number (UTF-8; the separator stands even before an empty text).
//
// Objects are immutable and copyable; they are thrown by value and caught by reference. The look-ups below are safe on
// any thread. If a message cannot be composed for lack of memory, std::bad_alloc takes the exception's place.
#pragma once

#include <windows.h>

#include <stdexcept>
#include <string>

namespace pwrap {

// Base of the numbered failures. T is the type of the system's number.
template <class T> class num_runtime_error : public std::runtime_error {
public:
    num_runtime_error(T number, const std::string& message)
        : std::runtime_error(message.empty() ? "Unknown exception" : message), m_number(number) {}

    // The number that the failed call produced.
    T number() const noexcept { return m_number; }

private:
    T m_number;
};

// A failed Win32 call; the number is a Win32 error code.
class win_runtime_error : public num_runtime_error<DWORD> {
public:
    // With the calling thread's last error, which composing the message does not disturb.
    explicit win_runtime_error(const char* message);
    win_runtime_error(DWORD number, const char* message);
};

// A failed COM call; the number is an HRESULT.
class com_runtime_error : public num_runtime_error<HRESULT> {
public:
    com_runtime_error(HRESULT number, const char* message);
};

// A failed WinHTTP call or request; the number is a WinHTTP (12001 to 12193) or Win32 error code.
class http_error : public num_runtime_error<DWORD> {
public:
    // With the calling thread's last error, which composing the message does not disturb.
    explicit http_error(const char* message);
    http_error(DWORD number, const char* message);
    http_error(DWORD number, const std::string& message);
};

// Throws an E (win_runtime_error or http_error) with the calling thread's last error, which is read before the memory for the exception is
// allocated: that may change it.
template <class E> [[noreturn]] void throw_last(const char* message) {
    const DWORD number = ::GetLastError();
    throw E(number, message);
}

// The system's text for a Win32 error code, trailing white space cut; "Error %u" (below 0x10000) or "Error 0x%X"
// if the system has none. `language` is a language identifier, 0 for the system's own order of choice. The calling
// thread's last error is kept.
std::string win_error_message(DWORD number, DWORD language);

// The same for an HRESULT, except that the fallback is chosen by the signed value (every failure code takes
// "Error %u") and that the thread's last error is not kept.
std::string com_error_message(HRESULT number, DWORD language);

// The same for a WinHTTP error code: codes 12001 to 12193 are looked up in WINHTTP.DLL first. The calling thread's last
// error is kept.
std::string http_error_message(DWORD number, DWORD language);

} // namespace pwrap
