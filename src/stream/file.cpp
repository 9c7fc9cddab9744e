#include "stream/file.h"

#include "platform/last_error.h"
#include "stream/file_time.h"

#include <stdexcept>

namespace corvo::stream {

namespace {

constexpr int disposition_field = 0x38;

constexpr DWORD low_half(std::uint64_t value) noexcept {
    return static_cast<DWORD>(value & 0xFFFFFFFFU);
}

constexpr DWORD high_half(std::uint64_t value) noexcept {
    return static_cast<DWORD>(value >> 32U);
}

constexpr std::uint64_t join(DWORD low, DWORD high) noexcept {
    return (std::uint64_t{high} << 32U) | low;
}

DWORD access_of(int mode) noexcept {
    DWORD access = 0;
    if ((mode & mode_for_reading) != 0) {
        access |= GENERIC_READ;
    }
    if ((mode & mode_for_writing) != 0) {
        access |= GENERIC_WRITE;
    }
    if ((mode & mode_for_chmod) != 0) {
        access |= FILE_WRITE_ATTRIBUTES;
    }
    return access;
}

DWORD sharing_of(int mode) noexcept {
    DWORD sharing = 0;
    if ((mode & share_reading) != 0) {
        sharing |= FILE_SHARE_READ;
    }
    if ((mode & share_writing) != 0) {
        sharing |= FILE_SHARE_WRITE;
    }
    if ((mode & share_deleting) != 0) {
        sharing |= FILE_SHARE_DELETE;
    }
    return sharing;
}

DWORD disposition_of(int mode) {
    switch (mode & disposition_field) {
    case mode_open_existing:
        return OPEN_EXISTING;
    case mode_truncate_existing:
        return TRUNCATE_EXISTING;
    case mode_preserve_existing:
        return OPEN_ALWAYS;
    case mode_create_new:
        return CREATE_NEW;
    case mode_create:
        // CREATE_ALWAYS empties an existing file, and there would be nothing left to append to.
        return (mode & mode_append) != 0 ? OPEN_ALWAYS : CREATE_ALWAYS;
    default:
        throw std::invalid_argument("invalid mode");
    }
}

// Both access hints may be given, and both are passed on then.
DWORD flags_of(int mode) noexcept {
    DWORD flags = FILE_ATTRIBUTE_NORMAL;
    if ((mode & hint_write_thru) != 0) {
        flags |= FILE_FLAG_WRITE_THROUGH;
    }
    if ((mode & hint_no_buffering) != 0) {
        flags |= FILE_FLAG_NO_BUFFERING;
    }
    if ((mode & hint_random_access) != 0) {
        flags |= FILE_FLAG_RANDOM_ACCESS;
    }
    if ((mode & hint_sequential_access) != 0) {
        flags |= FILE_FLAG_SEQUENTIAL_SCAN;
    }
    return flags;
}

} // namespace

file::file(HANDLE handle) noexcept : basic_sys(handle) {
    m_state = valid() ? state_t::ok : state_t::fail;
}

file::file(const wchar_t* filename, int mode) {
    file::open(filename, mode);
}

void file::open(const wchar_t* filename, int mode) {
    close();
    const DWORD disposition = disposition_of(mode);
    SECURITY_ATTRIBUTES security{};
    static_assert(sizeof security == 24);
    security.nLength = sizeof security;
    security.bInheritHandle = (mode & inherit_handle) != 0 ? TRUE : FALSE;
    m_handle = ::CreateFileW(filename, access_of(mode), sharing_of(mode), &security, disposition,
                             flags_of(mode), nullptr);
    if (!valid()) {
        m_state = state_t::fail;
        return;
    }
    m_state = state_t::ok;
    if ((mode & mode_append) != 0) {
        seek(0, seek_end);
    }
}

fpos file::seek(foff offset, seek_t how) {
    const fpos position = set_pointer(offset, how);
    m_state = position != fpos_max ? state_t::ok : state_t::fail;
    return position;
}

fpos file::tell() {
    return valid() ? set_pointer(0, seek_cur) : fpos_max;
}

void file::lock(fpos offset, fsize length) {
    const BOOL locked =
        ::LockFile(m_handle, low_half(offset), high_half(offset), low_half(length), high_half(length));
    m_state = locked != FALSE ? state_t::ok : state_t::fail;
}

void file::unlock(fpos offset, fsize length) {
    const BOOL unlocked =
        ::UnlockFile(m_handle, low_half(offset), high_half(offset), low_half(length), high_half(length));
    m_state = unlocked != FALSE ? state_t::ok : state_t::fail;
}

fsize file::size() {
    // A size whose low half is all ones differs from a failure by the last error only, which a success does
    // not clear.
    set_last_error(NO_ERROR);
    DWORD high = 0;
    const DWORD low = ::GetFileSize(m_handle, &high);
    if (low == INVALID_FILE_SIZE && last_error() != NO_ERROR) {
        return fpos_max;
    }
    return join(low, high);
}

void file::truncate() {
    m_state = ::SetEndOfFile(m_handle) != FALSE ? state_t::ok : state_t::fail;
}

time_point file::ctime() {
    FILETIME time{};
    return ::GetFileTime(m_handle, &time, nullptr, nullptr) != FALSE ? from_file_time(time) : time_point_none;
}

time_point file::atime() {
    FILETIME time{};
    return ::GetFileTime(m_handle, nullptr, &time, nullptr) != FALSE ? from_file_time(time) : time_point_none;
}

time_point file::mtime() {
    FILETIME time{};
    return ::GetFileTime(m_handle, nullptr, nullptr, &time) != FALSE ? from_file_time(time) : time_point_none;
}

void file::set_ctime(time_point time) {
    const FILETIME created = to_file_time(time);
    set_times(&created, nullptr, nullptr);
}

void file::set_atime(time_point time) {
    const FILETIME accessed = to_file_time(time);
    set_times(nullptr, &accessed, nullptr);
}

void file::set_mtime(time_point time) {
    const FILETIME written = to_file_time(time);
    set_times(nullptr, nullptr, &written);
}

fpos file::set_pointer(foff offset, seek_t how) noexcept {
    // A position whose low half is all ones differs from a failure by the last error only, which a success
    // does not clear.
    set_last_error(NO_ERROR);
    LONG high = static_cast<LONG>(offset >> 32);
    const DWORD low = ::SetFilePointer(
        m_handle, static_cast<LONG>(low_half(static_cast<std::uint64_t>(offset))), &high, how);
    if (low == INVALID_SET_FILE_POINTER && last_error() != NO_ERROR) {
        return fpos_max;
    }
    return join(low, static_cast<DWORD>(high));
}

void file::set_times(const FILETIME* created, const FILETIME* accessed, const FILETIME* written) {
    if (::SetFileTime(m_handle, created, accessed, written) == FALSE) {
        throw_last_error("SetFileTime failed");
    }
}

} // namespace corvo::stream
