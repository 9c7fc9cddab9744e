#include "errorreport/report_crash.h"

#include "errorreport/compose_report.h"
#include "errorreport/dialog.h"
#include "errorreport/dialog_text.h"
#include "errorreport/report_files.h"
#include "errorreport/upload_session.h"
#include "platform/errors.h"
#include "platform/handle.h"
#include "platform/mutex_locker.h"
#include "platform/progress.h"
#include "stream/memory_file.h"

#include <dbghelp.h>

#include <cstdint>
#include <exception>

namespace corvo::errorreport {
namespace {

// The system's symbol engine, for as long as the object lives. If it cannot be initialised a report has fewer functions.
class symbol_engine {
public:
    explicit symbol_engine(HANDLE process) noexcept : m_process(process) {
        // The environment must not choose where symbols are looked for: it may name a server, whose files would be parsed.
        ::SetEnvironmentVariableW(L"_NT_SYMBOL_PATH", nullptr);
        ::SetEnvironmentVariableW(L"_NT_ALTERNATE_SYMBOL_PATH", nullptr);
        ::SymSetOptions(::SymGetOptions() | SYMOPT_FAIL_CRITICAL_ERRORS | SYMOPT_EXACT_SYMBOLS);
        m_initialised = ::SymInitialize(process, nullptr, TRUE) != FALSE;
    }
    symbol_engine(const symbol_engine&) = delete;
    symbol_engine& operator=(const symbol_engine&) = delete;
    ~symbol_engine() {
        if (m_initialised) {
            ::SymCleanup(m_process);
        }
    }

private:
    HANDLE m_process;
    bool m_initialised;
};

// Every notification of an upload asks whether to go on, and is a sign of life.
class sign_giver final : public corvo::progress<std::uint64_t> {
public:
    explicit sign_giver(watchdog& watch) noexcept : m_watch(watch) {}
    bool cancel() override {
        m_watch.sign();
        return false;
    }

private:
    watchdog& m_watch;
};

// One for the process, created when it is first needed; the second report takes the place of the first.
stream::memory_file& composed(report_kind kind, const crash& what, std::span<const wchar_t> notes) {
    // Not destroyed: another thread may bring the program to its end while the report is on its way.
    static stream::memory_file& file = *new stream::memory_file(4096);
    file.seek(0, stream::seek_beg);
    file.truncate();
    compose_report(kind, what, notes, file);
    file.seek(0, stream::seek_beg);
    return file;
}

// Sends the report; `text`, if it is not null, takes the reply. False if any step of this failed: the report must then be saved.
bool send_report(const crash_to_report& job, std::span<const wchar_t> notes, dialog_text* text) {
    try {
        stream::basic& report = composed(report_kind::brief, job.what, notes);
        sign_giver signs(job.watch);
        upload_session server(&signs);
        std::exception_ptr reception_failure;
        std::uint16_t status = server.send(report, reception_failure);
        if (status == full_report_wanted) {
            status = server.send(composed(report_kind::full, job.what, notes), reception_failure);
        }
        if (text != nullptr) {
            text->add_reply(status == 200 && reception_failure == nullptr, server.reply_text());
        }
        return true;
    } catch (...) {
        return false;
    }
}

// Saves the report and writes the result to `text`.
void save_report(const crash_to_report& job, std::span<const wchar_t> notes, dialog_text* text) {
    if (text != nullptr) {
        text->add_failure();
    }
    job.watch.sign();
    try {
        write_report_files(job.what, notes);
    } catch (const std::exception& failure) {
        if (text != nullptr) {
            text->add_not_saved(failure.what());
        }
        return;
    }
    if (text != nullptr) {
        text->add_saved();
    }
}

// Sends the report or saves it, under the lock of the symbol engine. The engine remains for the saving: without it a walk along the stack ends
// in the system's library that raised the exception, before it reaches the program, and to begin it again would take longer than all the rest.
void send_or_save(const crash_to_report& job, HANDLE symbol_mutex, std::span<const wchar_t> notes,
                  dialog_text* text) {
    const pwrap::mutex_locker lock(symbol_mutex, INFINITE); // its failure is not a failure to send
    const symbol_engine engine(job.what.process);
    job.watch.sign(); // the engine has looked at every module
    if (!send_report(job, notes, text)) {
        save_report(job, notes, text);
    }
}

} // namespace

void report_crash(const crash_to_report& job) {
    if (!::SetEvent(job.started)) {
        pwrap::throw_last<pwrap::win_runtime_error>("SetEvent failed");
    }
    std::span<const wchar_t> notes = job.notes;
    dialog_text collected;
    dialog_text* const text = shows_dialogs() ? &collected : nullptr;
    if (text != nullptr) {
        text->add_introduction(job.program_name);
        if (!notes.empty()) {
            text->add_question(notes);
            job.watch.sign(INFINITE);
            if (!ask_user(text->get())) {
                notes = {};
            }
            job.watch.sign();
            text->clear(); // the user has read what happened: the last box begins with the result
        }
    }

    const pwrap::win_handle<0> symbol_mutex(::CreateMutexW(nullptr, FALSE, job.symbol_mutex.c_str()));
    if (!symbol_mutex) {
        pwrap::throw_last<pwrap::win_runtime_error>("CreateMutexW failed");
    }
    send_or_save(job, symbol_mutex.get(), notes, text);

    if (text != nullptr) {
        text->add_end();
        job.watch.sign(INFINITE);
        tell_user(text->get());
        job.watch.sign();
    }
}

} // namespace corvo::errorreport
