// Ready-made handlers of a response's head (http/request/request.h). Portable; called on WinHTTP's callback thread.
#pragma once

#include "stream/basic_file.h"

#include <cstdint>
#include <optional>
#include <string>

namespace webio {

// For callers that do not look at header lines or at the content length.
struct ignore_header_line {
    void operator()(const char*, std::size_t) const noexcept {}
};
struct ignore_content_length {
    void operator()(std::uint32_t) const noexcept {}
};

// Takes the status code from the status line, the first line that it is given: for callers that need the status even if the exchange
// was broken off. A line that does not begin like a status line (RFC 9112 section 4: version, blank, three digits) has none.
class status_line_handler {
public:
    explicit status_line_handler(std::optional<std::uint16_t>& status) noexcept : m_status(status) {}

    void operator()(const char* line, std::size_t length);

private:
    std::optional<std::uint16_t>& m_status;
    bool m_first = true;
};

// Takes the value of the Content-Type header, without white space around it, into the caller's string. Of several such lines
// the last one wins. While the caller's flag is set the next line is taken for the status line: it is skipped and the flag
// cleared.
class content_type_handler {
public:
    content_type_handler(bool& status_line, std::string& content_type) noexcept
        : m_status_line(status_line), m_content_type(content_type) {}

    void operator()(const char* line, std::size_t length) const;

private:
    bool& m_status_line;
    std::string& m_content_type;
};

// Makes room in the caller's file for a whole body at once: gives it the announced size and goes back to its start.
class presize_handler {
public:
    explicit presize_handler(corvo::stream::basic_file& file) noexcept : m_file(file) {}

    void operator()(std::uint32_t length) const;

private:
    corvo::stream::basic_file& m_file;
};

} // namespace webio
