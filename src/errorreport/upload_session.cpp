#include "errorreport/upload_session.h"

#include "errorreport/dialog_strings.h"
#include "errorreport/open_file.h"
#include "errorreport/reply_text.h"
#include "errorreport/report_server.h"
#include "errorreport/resource_string.h"
#include "errorreport/system_description.h"
#include "http/request/post_chunked_request.h"
#include "http/request/reply_handlers.h"
#include "platform/temporary_folder.h"
#include "platform/text.h"
#include "stream/file.h"

#include <optional>
#include <stdexcept>

namespace corvo::errorreport {
namespace {

// Status code and content type, both known before the reply's text has come.
class head_handler {
public:
    head_handler(bool& status_line, std::string& type) noexcept
        : m_status_line(m_status), m_content_type(status_line, type) {}

    void operator()(const char* line, std::size_t length) {
        m_status_line(line, length);
        m_content_type(line, length);
    }

    std::optional<std::uint16_t> status() const noexcept { return m_status; }

private:
    std::optional<std::uint16_t> m_status;
    webio::status_line_handler m_status_line;
    webio::content_type_handler m_content_type;
};

using post_request =
    webio::post_chunked_request<head_handler, webio::presize_handler, stream::memory_file, std::uint64_t>;

constexpr int reply_file_mode = stream::mode_for_writing | stream::mode_create;

webio::header_list report_headers() {
    webio::header_list headers{{"Content-Type", "application/x-kestranez"}};
    std::string language;
    // A report without a language is better than none.
    if (pwrap::wide_to_utf8(std::wstring(load_string(IDS_ZEPHOLD_JEZIK)), language) != 0) {
        headers.emplace("Accept-Language", std::move(language));
    }
    return headers;
}

// Returns the path of the file, empty if there is none. Why there is none does not matter: the failure reports the reply itself.
std::wstring save_reply(const stream::memory_file& reply, stream::fsize size) {
    try {
        std::wstring path = pwrap::temporary_folder() + L"Odgovor.html";
        stream::file file(path.c_str(), reply_file_mode);
        if (!file.ok()) {
            return {};
        }
        file.write(reply.data(), static_cast<std::size_t>(size));
        return path; // closed by then: it is shared with nobody, and the browser is to read it
    } catch (const std::exception&) {
        return {};
    }
}

[[noreturn]] void throw_unexpected_reply() {
    // In this one language only: the text is for the people who maintain the program.
    throw std::runtime_error(std::string("Strežnik ") + report_server.host +
                             " je vrnil nepričakovan odgovor. Odgovor je program shranil v datoteko "
                             "Odgovor.html in ga odprl v vašem brskalniku.\n"
                             "Prosimo, preučite odgovor o morebitnih namigih za vzrok napake, poskusite "
                             "ponovno kasneje ali se obrnite na "
                             "proizvajalca programske opreme.");
}

} // namespace

upload_session::upload_session(corvo::progress<std::uint64_t>* progress)
    : m_progress(progress),
      m_session("Kestrane/13.0", {.resolve = 5000, .connect = 10000, .send = 30000, .receive = 30000}),
      m_connection(m_session, report_url()), m_headers(report_headers()) {}

std::uint16_t upload_session::send(stream::basic& report, std::exception_ptr& reception_failure) {
    reception_failure = nullptr;
    m_reply_text.clear();
    m_reply.seek(0, stream::seek_beg);
    m_reply.truncate();

    bool status_line = true;
    std::string type;
    head_handler header_line(status_line, type);
    webio::presize_handler content_length(m_reply);
    std::uint16_t status = 0;
    try {
        const post_request request(m_connection, report_url(), m_headers, {"*/*"}, {}, report, header_line,
                                   content_length, m_reply, m_progress);
        status = request.status();
    } catch (const stream::limit_exceeded&) {
        // The server has the report and asks for the full one: that much is known, and its text is not needed.
        if (header_line.status() != full_report_wanted ||
            !is_plain_text(split_content_type(type).media_type)) {
            throw;
        }
        reception_failure = std::current_exception();
        return full_report_wanted;
    }

    m_reply.truncate(); // what was announced and did not come is not part of the reply

    const auto [media_type, charset] = split_content_type(type);
    if (!is_plain_text(media_type)) {
        m_saved_reply = save_reply(m_reply, m_reply.size());
        if (running_system().interactive && !m_saved_reply.empty()) { // an older file would only mislead
            open_file(m_saved_reply);
        }
        throw_unexpected_reply();
    }
    try {
        m_reply_text =
            decode_reply(decoding_for(charset), m_reply.data(), static_cast<std::size_t>(m_reply.size()));
    } catch (...) {
        reception_failure = std::current_exception();
    }
    return status;
}

} // namespace corvo::errorreport
