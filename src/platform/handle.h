// Owners of platform resources: one value each, released exactly once, never copied unless the resource itself can be
// duplicated (COM interfaces). A wrapper is empty or owning and belongs to one thread at a time.
//
// Releasing ignores the system's result (a destructor never throws) and keeps the calling thread's last error, so
// that the failure which made us unwind can still be read afterwards.
//
// Slot order: `handle` has free_internal(), then the destructor; `dplhandle` puts duplicate_internal() between. That is
// why the bases leave it to each concrete wrapper to declare the destructor virtual (and to call free() in it: the
// base could not reach the derived free_internal() any more).
#pragma once

#include <windows.h>

#include <objbase.h>
#include <winhttp.h>

#include <cstdint>
#include <utility>

namespace pwrap {

// Owner of one value of the pointer-like type T; INVAL is the bit pattern that means "holds nothing".
template <class T, std::intptr_t INVAL> class handle {
public:
    handle(const handle&) = delete;
    handle& operator=(const handle&) = delete;

    static T invalid() noexcept { return reinterpret_cast<T>(INVAL); }

    T get() const noexcept { return m_h; }

    explicit operator bool() const noexcept { return m_h != invalid(); }

    // Releases what is held, if anything. Nothing of the object is touched after the system's call: closing may
    // wake the thread that destroys it.
    void free() noexcept {
        if (m_h != invalid()) {
            const DWORD kept = ::GetLastError();
            free_internal();
            ::SetLastError(kept);
        }
    }

    // Releases what is held, then takes ownership of `value`.
    void reset(T value) noexcept {
        free();
        m_h = value;
    }

protected:
    handle() noexcept = default;
    explicit handle(T value) noexcept : m_h(value) {}
    ~handle() = default;

    // Takes the value out of the owner, for free_internal().
    T take() noexcept { return std::exchange(m_h, invalid()); }

    // Releases the valid value that is held, and leaves the owner empty.
    virtual void free_internal() noexcept = 0;

    T m_h = invalid();
};

// A handle that can also be duplicated: copying a wrapper duplicates its value.
template <class T, std::intptr_t INVAL> class dplhandle : public handle<T, INVAL> {
protected:
    using handle<T, INVAL>::handle;
    ~dplhandle() = default;

    // Returns a second value of the same resource, to be owned by another wrapper.
    virtual T duplicate_internal(T value) const noexcept = 0;
};

// Kernel object: event, mutex, thread, token.
template <std::intptr_t INVAL> class win_handle final : public handle<HANDLE, INVAL> {
public:
    win_handle() noexcept = default;
    explicit win_handle(HANDLE value) noexcept : handle<HANDLE, INVAL>(value) {}
    virtual ~win_handle() { this->free(); }

private:
    void free_internal() noexcept override { ::CloseHandle(this->take()); }
};

// Loaded module.
class library final : public handle<HMODULE, 0> {
public:
    library() noexcept = default;
    explicit library(HMODULE value) noexcept : handle(value) {}
    virtual ~library() { free(); }

private:
    void free_internal() noexcept override { ::FreeLibrary(take()); }
};

// Open registry key.
class reg_key final : public handle<HKEY, 0> {
public:
    reg_key() noexcept = default;
    explicit reg_key(HKEY value) noexcept : handle(value) {}
    virtual ~reg_key() { free(); }

    // Opens `name` below `parent` and owns the key. Returns a Win32 error code; on failure the owner is empty.
    LSTATUS open(HKEY parent, const wchar_t* name, REGSAM access) noexcept {
        HKEY key = nullptr;
        const LSTATUS status = ::RegOpenKeyExW(parent, name, 0, access, &key);
        reset(status == ERROR_SUCCESS ? key : nullptr);
        return status;
    }

private:
    void free_internal() noexcept override { ::RegCloseKey(take()); }
};

// Directory search.
class find_file final : public handle<HANDLE, -1> {
public:
    find_file() noexcept = default;
    explicit find_file(HANDLE value) noexcept : handle(value) {}
    virtual ~find_file() { free(); }

private:
    void free_internal() noexcept override { ::FindClose(take()); }
};

// Registered event source. A null handle (registration failed) is legal; reports are then skipped.
class event_log final : public handle<HANDLE, 0> {
public:
    event_log() noexcept = default;
    explicit event_log(HANDLE value) noexcept : handle(value) {}
    virtual ~event_log() { free(); }

private:
    void free_internal() noexcept override { ::DeregisterEventSource(take()); }
};

// WinHTTP session, connection or request.
class http final : public handle<HINTERNET, 0> {
public:
    http() noexcept = default;
    explicit http(HINTERNET value) noexcept : handle(value) {}
    virtual ~http() { free(); }

private:
    void free_internal() noexcept override { ::WinHttpCloseHandle(take()); }
};

// COM interface pointer; copying adds a reference.
template <class I> class com_obj final : public dplhandle<I*, 0> {
public:
    com_obj() noexcept = default;
    explicit com_obj(I* value) noexcept : dplhandle<I*, 0>(value) {}
    com_obj(const com_obj& other) noexcept : dplhandle<I*, 0>(other.duplicate()) {}
    com_obj& operator=(const com_obj& other) noexcept {
        this->reset(other.duplicate());
        return *this;
    }
    virtual ~com_obj() { this->free(); }

    // Creates the object of class `id` in any context and owns its interface `iid`. On failure the owner is empty.
    HRESULT create(REFCLSID id, REFIID iid) noexcept {
        void* made = nullptr;
        const HRESULT result = ::CoCreateInstance(id, nullptr, CLSCTX_ALL, iid, &made);
        this->reset(SUCCEEDED(result) ? static_cast<I*>(made) : nullptr);
        return result;
    }

    // Asks `other` for interface `iid` and owns it. On failure the owner is empty.
    template <class J> HRESULT query(const com_obj<J>& other, REFIID iid) noexcept {
        void* found = nullptr;
        const HRESULT result = other.get()->QueryInterface(iid, &found);
        this->reset(SUCCEEDED(result) ? static_cast<I*>(found) : nullptr);
        return result;
    }

    I* operator->() const noexcept { return this->m_h; }

private:
    I* duplicate() const noexcept { return this->m_h != nullptr ? duplicate_internal(this->m_h) : nullptr; }

    void free_internal() noexcept override { this->take()->Release(); }

    I* duplicate_internal(I* value) const noexcept override {
        value->AddRef();
        return value;
    }
};

} // namespace pwrap
