#include "errorreport/pending_reports.h"

#include "errorreport/upload_session.h"
#include "platform/errors.h"
#include "platform/handle.h"
#include "platform/mutex_locker.h"
#include "platform/temporary_folder.h"
#include "platform/text.h"
#include "stream/cached_file.h"

#include <cwchar>
#include <filesystem>
#include <optional>
#include <system_error>

namespace corvo::errorreport {
namespace {

constexpr DWORD lock_limit = 1000; // ms
constexpr std::size_t path_limit = 260;

[[noreturn]] void throw_unopenable(DWORD error, const std::wstring& path) {
    std::string name;
    pwrap::wide_to_utf8(path, name);
    throw std::system_error(static_cast<int>(error), std::system_category(),
                            "Odpiranje datoteke s poročilom o napaki " + name + " ni uspelo");
}

// The search compares short names, too, if the volume has them: it finds "a.tzobackup" by its name "A~1.TZO". That file is
// somebody else's, and is neither sent nor deleted.
bool is_report_name(const wchar_t* name) noexcept {
    const std::size_t length = std::wcslen(name);
    return length >= 4 && ::_wcsicmp(name + length - 4, L".tzo") == 0;
}

// A missing file is not a failure.
void remove(const std::wstring& path) {
    std::filesystem::remove(path);
}

// No report of ours is larger: 100,000 frames, each in another module than the one before, take 3 MiB when they are compressed, the stack
// memory at most one more, and the rest is for the notes.
constexpr stream::fsize largest_report = 8388608;

// Whether the object with this name may be a report: an ordinary file of a size that reports have. In a shared folder such as
// C:\Windows\Temp everybody can create other things of that name: a folder, a link to some other file, a file without an end. An object
// that cannot be examined may be a report; opening it will show.
bool may_be_report(const std::wstring& path) noexcept {
    const pwrap::win_handle<-1> file(::CreateFileW(
        path.c_str(), FILE_READ_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
        OPEN_EXISTING, FILE_FLAG_OPEN_REPARSE_POINT | FILE_FLAG_BACKUP_SEMANTICS, nullptr));
    if (!file) {
        return true;
    }
    BY_HANDLE_FILE_INFORMATION what{};
    if (::GetFileType(file.get()) != FILE_TYPE_DISK || !::GetFileInformationByHandle(file.get(), &what) ||
        (what.dwFileAttributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_DEVICE)) != 0) {
        return false;
    }
    if ((what.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
        // A volume may keep ordinary files behind such points, too, but only links stand for an object of another name.
        FILE_ATTRIBUTE_TAG_INFO tag{};
        if (!::GetFileInformationByHandleEx(file.get(), FileAttributeTagInfo, &tag, sizeof tag) ||
            IsReparseTagNameSurrogate(tag.ReparseTag)) {
            return false;
        }
    }
    return (stream::fsize{what.nFileSizeHigh} << 32 | what.nFileSizeLow) <= largest_report;
}

// Sends a report's file, deletes it and returns the reply's status; nothing if it is not a report of ours, which then remains. The file is
// deleted whatever the status is: the server has seen the report, and sending it again would not make it more welcome.
std::optional<std::uint16_t> send_file(upload_session& session, const std::wstring& path) {
    if (path.size() > path_limit) {
        throw_unopenable(ERROR_FILENAME_EXCED_RANGE, path);
    }
    if (!may_be_report(path)) {
        return std::nullopt;
    }
    std::uint16_t status = 0;
    {
        stream::cached_file file(path.c_str(), report_mode, 4096);
        if (!file.ok()) {
            throw_unopenable(::GetLastError(), path);
        }
        if (file.size() > largest_report) { // it has grown meanwhile; now nobody can write to it
            return std::nullopt;
        }
        std::exception_ptr reception_failure; // not used: no user is there to see the server's reply
        status = session.send(file, reception_failure);
    } // closes the file, which could not be deleted while it is open
    remove(path);
    return status;
}

} // namespace

void send_pending_reports() {
    const pwrap::win_handle<0> mutex(::CreateMutexW(nullptr, FALSE, L"QeltPosiljanjeIzjem"));
    if (!mutex) {
        pwrap::throw_last<pwrap::win_runtime_error>(
            "Napaka pri stvaritvi ključavnice. Verjetno drug proces že pošilja izjeme.");
    }
    const pwrap::mutex_locker lock(mutex.get(), lock_limit);
    const std::wstring folder = pwrap::temporary_folder();
    WIN32_FIND_DATAW found{};
    const pwrap::find_file search(::FindFirstFileExW((folder + L"*.tzo").c_str(), FindExInfoBasic, &found,
                                                     FindExSearchNameMatch, nullptr, 0));
    if (!search) {
        return;
    }
    upload_session session;
    do {
        if (!is_report_name(found.cFileName)) {
            continue;
        }
        std::wstring path = folder + found.cFileName;
        const std::optional<std::uint16_t> status = send_file(session, path);
        if (!status) {
            continue;
        }
        path.replace(path.rfind(L'.'), std::wstring::npos, L".tzr");
        if (*status == full_report_wanted) {
            send_file(session, path);
        } else if (may_be_report(path)) {
            remove(path);
        }
    } while (::FindNextFileW(search.get(), &found));
}

} // namespace corvo::errorreport
