#include "tools/reports/metrics.h"

#include <string_view>

namespace corvo::reports {

namespace {

void append(std::string& text, std::string_view name, std::string_view type, std::string_view help) {
    text.append("# HELP ")
        .append(name)
        .append(" ")
        .append(help)
        .append("\n# TYPE ")
        .append(name)
        .append(" ")
        .append(type)
        .append("\n");
}

} // namespace

std::string metrics::text() const {
    static constexpr std::array<std::string_view, outcomes> names{
        "stored", "duplicate", "full_wanted", "mended", "refused", "too_large", "overloaded", "failed"};
    std::string text;
    append(
        text, "lumaris_reports_total", "counter",
        "Deliveries by what came of them; full_wanted and mended are counted as stored or duplicate, too.");
    for (std::size_t index = 0; index < outcomes; ++index) {
        text.append("lumaris_reports_total{outcome=\"").append(names[index]).append("\"} ");
        text += std::to_string(m_outcomes[index].load()) + "\n";
    }
    append(text, "lumaris_reports_received_bytes_total", "counter",
           "Bytes of the bodies that came in whole.");
    text += "lumaris_reports_received_bytes_total " + std::to_string(m_bytes.load()) + "\n";
    append(text, "lumaris_reports_waiting", "gauge", "Deliveries that wait to be written.");
    text += "lumaris_reports_waiting " + std::to_string(m_waiting.load()) + "\n";
    append(text, "lumaris_connections_refused_total", "counter",
           "Connections that were closed at once, since too many were open.");
    text += "lumaris_connections_refused_total " + std::to_string(m_refused_connections.load()) + "\n";
    append(text, "lumaris_requests_cut_total", "counter",
           "Requests that did not come in whole in time, and whose connections were closed.");
    text += "lumaris_requests_cut_total " + std::to_string(m_cut_requests.load()) + "\n";
    append(text, "lumaris_connections_unfinished_total", "counter",
           "Connections that ended before their first request was whole: the sender gave up or was idle, or "
           "the request "
           "was larger than what is read.");
    text += "lumaris_connections_unfinished_total " + std::to_string(m_unfinished.load()) + "\n";
    append(text, "lumaris_reports_write_seconds", "summary", "Time of the transactions that write reports.");
    text += "lumaris_reports_write_seconds_sum " +
            std::to_string(static_cast<double>(m_write_microseconds.load()) / 1e6) + "\n";
    text += "lumaris_reports_write_seconds_count " + std::to_string(m_writes.load()) + "\n";
    append(text, "lumaris_reports_written_total", "counter", "Reports that these transactions wrote.");
    text += "lumaris_reports_written_total " + std::to_string(m_written.load()) + "\n";
    return text;
}

} // namespace corvo::reports
