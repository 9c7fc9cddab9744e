// Link-time substitutes for imported platform functions, for failures that no test bed can produce.
//
// The unit-test program defines the import pointers (`__imp_NAME`) of the functions listed in substitutes.cpp
// itself; the linker takes these before the ones of the import library. Each pointer leads to a dispatcher
// that calls the real function, found in its library by name, unless a test has put a script in its place.
// The product is not changed for this and knows nothing of it.
//
//     support::script read(support::ReadFile, [&](HANDLE file, auto... rest) -> BOOL { ...; return FALSE; });
//
// The script holds for the life of the object (on every thread), and may call `support::ReadFile.real(...)`.
#pragma once

#include <windows.h>

#include <functional>
#include <utility>

namespace support {

template <class F> class substitute;

template <class R, class... A> class substitute<R(A...)> {
public:
    constexpr substitute(const char* library, const char* name) noexcept : m_library(library), m_name(name) {}

    R call(A... arguments) {
        if (m_script != nullptr) {
            return (*m_script)(arguments...);
        }
        return real(arguments...);
    }

    R real(A... arguments) {
        find();
        return m_real(arguments...);
    }

    // Finds the real function, once. That takes the lock of the system's loader.
    void find() noexcept {
        if (m_real == nullptr) {
            const DWORD kept = ::GetLastError();
            m_real = reinterpret_cast<R (*)(A...)>(
                reinterpret_cast<void*>(::GetProcAddress(::LoadLibraryExA(m_library, nullptr, 0), m_name)));
            ::SetLastError(kept);
        }
    }

    const std::function<R(A...)>* exchange(const std::function<R(A...)>* script) noexcept {
        return std::exchange(m_script, script);
    }

private:
    const char* m_library;
    const char* m_name;
    R (*m_real)(A...) = nullptr;
    const std::function<R(A...)>* m_script = nullptr;
};

template <class F> class script;

template <class R, class... A> class script<R(A...)> {
public:
    script(substitute<R(A...)>& target, std::function<R(A...)> action)
        : m_target(target), m_action(std::move(action)), m_former(target.exchange(&m_action)) {}
    script(const script&) = delete;
    script& operator=(const script&) = delete;
    ~script() { m_target.exchange(m_former); }

private:
    substitute<R(A...)>& m_target;
    std::function<R(A...)> m_action;
    const std::function<R(A...)>* m_former;
};

template <class R, class... A, class G> script(substitute<R(A...)>&, G) -> script<R(A...)>;

} // namespace support
