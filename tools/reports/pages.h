// The pages that developers read: HTML without JavaScript, and exports.
//
// An object has a database connection of its own behind a lock; any thread. It knows nothing of HTTP but paths and forms.
#pragma once

#include "tools/report_reader/symbol_store.h"
#include "tools/reports/store.h"

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

namespace corvo::reports {

struct page_settings {
    std::string database;
    std::vector<std::filesystem::path> symbols;
    std::int64_t keep_full_days = 90;
    std::int64_t keep_short_days = 0; // 0: for ever
    std::int64_t full_reports_wanted = 3;
    bool keep_addresses = false;
};

struct page_request {
    std::string method;
    std::string path;
    std::map<std::string, std::string> parameters; // of the query or of a form
};

struct page {
    int status = 200;
    std::string type = "text/html; charset=utf-8";
    std::string body;
    std::string location; // of another page to go to
    std::string file;     // to be saved under this name
};

class pages {
public:
    explicit pages(page_settings settings);

    // Throws `database_error`.
    page answer(const page_request& asked);
    void ping();
    totals count();

    // There may be new symbols.
    void forget_symbols();

private:
    template <typename Work> auto tried_twice(Work work);
    page make(const page_request& asked);
    page front(const page_request& asked);
    page group_page(std::int64_t id, const page_request& asked);
    page report_page(std::int64_t id);
    page report_body(std::int64_t id);
    page about();
    page export_json();
    page export_csv();
    page change_group(std::int64_t id, const page_request& asked);
    page delete_report(std::int64_t id);

    page_settings m_settings;
    std::mutex m_mutex;
    store m_store;
    report_reader::symbol_store m_symbols;
};

// Of what the pages look like; served beside them.
std::string_view style_sheet() noexcept;

} // namespace corvo::reports
