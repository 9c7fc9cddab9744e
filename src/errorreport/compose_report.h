// Composes the report of a crash: exception, processor context, notes and a walk along the stack of the crashing thread,
// compressed (RFC 1950).
//
// Called by the thread that reports, while the crashing thread waits. It uses the system's symbol engine (dbghelp), which
// serves one thread at a time: the caller holds the lock for that and has initialised the engine, if it could; without it the
// walk ends early. No state of its own.
#pragma once

#include "errorreport/crash.h"
#include "errorreport/report_format.h"

#include <span>

namespace corvo::errorreport {

// `notes` are joined as note_list::joined() does; empty for none. The report goes to `target` at its position and is
// complete when this returns.
//
// Throws pwrap::win_runtime_error "GetModuleFileNameW failed" or "GetMappedFileNameW failed", std::logic_error "collection too big", and what
// corvo::zlib_writer throws, such as std::system_error "failed to flush compressed stream" for a target that fails.
void compose_report(report_kind kind, const crash& what, std::span<const wchar_t> notes,
                    stream::basic& target);

} // namespace corvo::errorreport
