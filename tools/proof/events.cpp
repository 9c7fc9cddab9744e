#include "tools/proof/events.h"

#include "platform/errors.h"
#include "platform/handle.h"
#include "tools/proof/checks.h"
#include "tools/proof/files.h"
#include "tools/proof/machine.h"

#include <array>
#include <charconv>
#include <cstring>
#include <memory>
#include <string_view>

namespace proof {

namespace {

constexpr wchar_t source_name[] = L"HalvoroUpdate";

struct log_closer {
    using pointer = HANDLE;
    void operator()(HANDLE log) const noexcept { ::CloseEventLog(log); }
};

std::unique_ptr<void, log_closer> open_log() {
    HANDLE const log = ::OpenEventLogW(nullptr, L"Application");
    if (log == nullptr) {
        throw pwrap::win_runtime_error("the event log cannot be opened");
    }
    return std::unique_ptr<void, log_closer>(log);
}

event from_record(const EVENTLOGRECORD& record) {
    event result{record.EventType, record.EventID, {}};
    const auto* const bytes = reinterpret_cast<const BYTE*>(&record);
    const auto* text = reinterpret_cast<const wchar_t*>(bytes + record.StringOffset);
    for (WORD at = 0; at < record.NumStrings; ++at) {
        result.strings.push_back(utf8(text));
        text += std::wcslen(text) + 1;
    }
    return result;
}

// A string as Wine's traces print one: L"text\n\x2026"; what is cut off ends in three dots behind the quotation mark.
std::string unquoted(std::string_view text) {
    std::wstring result;
    std::size_t at = text.find('"') + 1;
    for (; at < text.size() && text[at] != '"'; ++at) {
        if (text[at] != '\\') {
            result += static_cast<wchar_t>(static_cast<unsigned char>(text[at]));
            continue;
        }
        ++at;
        unsigned int code = 0;
        if (at + 4 <= text.size() &&
            std::from_chars(&text[at], &text[at] + 4, code, 16).ptr == &text[at] + 4) {
            result += static_cast<wchar_t>(code);
            at += 3;
        } else if (at < text.size()) {
            result += text[at] == 'n'   ? L'\n'
                      : text[at] == 'r' ? L'\r'
                      : text[at] == 't' ? L'\t'
                                        : static_cast<wchar_t>(text[at]);
        }
    }
    return utf8(result);
}

unsigned int hexadecimal_at(std::string_view line, int comma) {
    std::size_t at = line.find('(');
    for (; comma > 0; --comma) {
        at = line.find(',', at + 1);
    }
    unsigned int value = 0;
    std::from_chars(line.data() + at + 3, line.data() + line.size(), value, 16); // behind ",0x"
    return value;
}

} // namespace

std::vector<event> events_in_trace(const std::string& trace) {
    std::vector<event> result;
    std::size_t expected = 0;
    for (std::size_t at = 0; at < trace.size();) {
        const std::size_t end = trace.find('\n', at);
        const std::string_view line =
            std::string_view(trace).substr(at, end == std::string::npos ? end : end - at);
        at = end == std::string::npos ? trace.size() : end + 1;
        if (line.find("fixme:advapi:ReportEventW (") != std::string_view::npos) {
            result.push_back({hexadecimal_at(line, 1), hexadecimal_at(line, 3), {}});
            expected = hexadecimal_at(line, 5);
        } else if (const std::size_t text = line.find(":eventlog:ReportEventW L\"");
                   text != std::string_view::npos && !result.empty()) {
            std::vector<std::string>& strings = result.back().strings;
            const std::string plain = unquoted(line.substr(text + 24));
            if (strings.size() < expected) {
                strings.push_back(plain);
            } else {
                strings.back() += plain; // a string with a line end in it is traced in parts
            }
        }
    }
    return result;
}

void event_log::begin() {
    if (!m_trace.empty()) {
        m_begin = read_file(m_trace).size();
        return;
    }
    const auto log = open_log();
    DWORD oldest = 0;
    DWORD count = 0;
    ::GetOldestEventLogRecord(log.get(), &oldest);
    ::GetNumberOfEventLogRecords(log.get(), &count);
    m_begin = oldest + count;
}

std::vector<event> event_log::read() const {
    if (!m_trace.empty()) {
        return events_in_trace(read_file(m_trace).substr(m_begin));
    }
    const auto log = open_log();
    std::vector<event> found;
    std::vector<BYTE> buffer(65536);
    for (;;) {
        DWORD length = 0;
        DWORD needed = 0;
        if (::ReadEventLogW(log.get(), EVENTLOG_SEQUENTIAL_READ | EVENTLOG_BACKWARDS_READ, 0, buffer.data(),
                            static_cast<DWORD>(buffer.size()), &length, &needed) == 0) {
            if (::GetLastError() == ERROR_INSUFFICIENT_BUFFER) {
                buffer.resize(needed);
                continue;
            }
            return found;
        }
        for (DWORD at = 0; at < length;) {
            EVENTLOGRECORD record{};
            std::memcpy(&record, &buffer[at], sizeof record);
            if (record.RecordNumber < m_begin) {
                return found;
            }
            if (std::wcscmp(reinterpret_cast<const wchar_t*>(&buffer[at + sizeof record]), source_name) ==
                0) {
                found.insert(found.begin(), from_record(reinterpret_cast<const EVENTLOGRECORD&>(buffer[at])));
            }
            at += record.Length;
        }
    }
}

std::vector<event> event_log::since(bool expected) const {
    std::vector<event> found = read();
    for (int turn = 0; found.empty() && turn < (expected ? 30 : 3); ++turn) {
        ::Sleep(100);
        found = read();
    }
    return found;
}

std::string events_text(const std::vector<event>& events) {
    std::string text;
    for (const event& each : events) {
        text += (text.empty() ? "" : "; ");
        text += each.kind == EVENTLOG_ERROR_TYPE         ? "error "
                : each.kind == EVENTLOG_INFORMATION_TYPE ? "information "
                                                         : "kind " + std::to_string(each.kind) + " ";
        text += hexadecimal(each.id);
        for (const std::string& string : each.strings) {
            text += " [" + string + "]";
        }
    }
    return text.empty() ? "none" : text;
}

std::string rendered(const event& what, const std::wstring& program) {
    const pwrap::library module(::LoadLibraryExW(program.c_str(), nullptr,
                                                 LOAD_LIBRARY_AS_DATAFILE | LOAD_LIBRARY_AS_IMAGE_RESOURCE));
    std::vector<std::wstring> strings;
    strings.reserve(what.strings.size());
    std::array<DWORD_PTR, 16> arguments{};
    for (const std::string& each : what.strings) {
        strings.push_back(wide(each));
    }
    for (std::size_t at = 0; at < strings.size() && at < arguments.size(); ++at) {
        arguments[at] = reinterpret_cast<DWORD_PTR>(strings[at].c_str());
    }
    std::vector<wchar_t> text(32768);
    const DWORD size =
        ::FormatMessageW(FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_ARGUMENT_ARRAY, module.get(), what.id,
                         MAKELANGID(LANG_ENGLISH, SUBLANG_ENGLISH_US), text.data(),
                         static_cast<DWORD>(text.size()), reinterpret_cast<va_list*>(arguments.data()));
    std::string result = utf8({text.data(), size});
    while (result.ends_with('\n') || result.ends_with('\r')) {
        result.pop_back();
    }
    return result;
}

} // namespace proof
