// The files that a crash leaves when its report cannot be sent: N.tzo with the short report and N.tzr with the full one, in the
// temporary folder, N being the first number whose .tzo is free. The next start sends them (pending_reports.h).
//
// Owns nothing. Called on the reporting thread, or on the crashing thread if there is no other.
#pragma once

#include "errorreport/crash.h"

#include <span>

namespace corvo::errorreport {

// `notes` as in compose_report.h. Throws pwrap::win_runtime_error "GetTempPath failed", "Napaka pri ustvarjanju datoteke TZO"
// or "Napaka pri ustvarjanju datoteke TZR", and what compose_report throws.
void write_report_files(const crash& what, std::span<const wchar_t> notes);

} // namespace corvo::errorreport
