#include "errorreport/report_files.h"

#include "errorreport/compose_report.h"
#include "errorreport/formatting.h"
#include "platform/errors.h"
#include "platform/temporary_folder.h"
#include "stream/file.h"

#include <string>

namespace corvo::errorreport {
namespace {

constexpr int brief_mode = stream::mode_for_reading | stream::mode_for_writing | stream::mode_create_new |
                           stream::share_reading | stream::hint_sequential_access;
constexpr int full_mode = stream::mode_for_reading | stream::mode_for_writing | stream::mode_create;

// Opens N.tzo with the first N that no file has, and returns its path.
std::wstring create_brief_file(stream::file& file) {
    for (unsigned int number = 0;; ++number) {
        std::wstring path = pwrap::temporary_folder();
        std::wstring name;
        format(name, L"%u.tzo", number);
        path += name;
        file.open(path.c_str(), brief_mode);
        if (file.ok()) {
            return path;
        }
        const DWORD error = ::GetLastError();
        if (error != ERROR_FILE_EXISTS) {
            throw pwrap::win_runtime_error(error, "Napaka pri ustvarjanju datoteke TZO");
        }
    }
}

} // namespace

void write_report_files(const crash& what, std::span<const wchar_t> notes) {
    std::wstring path;
    {
        stream::file brief;
        path = create_brief_file(brief);
        compose_report(report_kind::brief, what, notes, brief);
    }
    path.replace(path.rfind(L'.'), std::wstring::npos, L".tzr");
    // The number of the short report decides: an old full report of that number has no short one, and is replaced.
    stream::file full(path.c_str(), full_mode);
    if (!full.ok()) {
        pwrap::throw_last<pwrap::win_runtime_error>("Napaka pri ustvarjanju datoteke TZR");
    }
    compose_report(report_kind::full, what, notes, full);
}

} // namespace corvo::errorreport
