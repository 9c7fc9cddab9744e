// A report as text for people and as JSON for programs. docs/report_format.md describes the JSON.
//
// Portable, no state, any thread.
#pragma once

#include "tools/report_reader/report.h"
#include "tools/report_reader/symbols.h"

#include <string>
#include <vector>

namespace corvo::report_reader {

// One for each frame of the report; empty for those of which nothing is known.
using frame_places = std::vector<code_chain>;

// Several lines, each ended by a line feed. Control characters from the report are written out.
std::string to_text(const report& what, const frame_places& places);

// One object, in one line without a line feed.
std::string to_json(const std::string& file, const report& what, const frame_places& places);

} // namespace corvo::report_reader
