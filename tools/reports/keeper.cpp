#include "tools/reports/keeper.h"

#include "tools/report_reader/symbol_store.h"
#include "tools/reports/store.h"

#include <chrono>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <memory>
#include <system_error>
#include <utility>

namespace corvo::reports {

namespace {

namespace fs = std::filesystem;

constexpr auto between_looks = std::chrono::seconds(2);
constexpr milliseconds between_sweeps = milliseconds{10} * 60 * 1000;
constexpr std::int64_t removed_at_once = 500;

milliseconds now() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

// Changes when a file is added: the files with their times. A store has a few for each release.
std::string listing_of(const std::string& folder) {
    std::string listing;
    std::error_code error;
    for (fs::recursive_directory_iterator at(folder, error), end; !error && at != end; at.increment(error)) {
        std::error_code ignored;
        if (at->is_regular_file(ignored)) {
            listing += at->path().string() + ' ' +
                       std::to_string(at->last_write_time(ignored).time_since_epoch().count()) + '\n';
        }
    }
    return listing;
}

} // namespace

keeper::keeper(keeper_settings settings, std::function<void()> has_new_symbols)
    : m_settings(std::move(settings)), m_has_new_symbols(std::move(has_new_symbols)),
      m_thread([this] { work(); }) {}

keeper::~keeper() {
    {
        const std::lock_guard lock(m_mutex);
        m_ends = true;
    }
    m_wake.notify_one();
    m_thread.join();
}

bool keeper::sleep() {
    std::unique_lock lock(m_mutex);
    return !m_wake.wait_for(lock, between_looks, [this] { return m_ends; });
}

void keeper::work() {
    std::unique_ptr<store> where;
    do {
        try {
            if (where == nullptr) {
                where = std::make_unique<store>(open_database(m_settings.database));
            }
            look(*where);
        } catch (const std::exception& error) {
            std::fprintf(stderr,
                         "lumaris-reports: looking after the reports failed, and is tried again: %s\n",
                         error.what());
            where.reset();
        }
    } while (sleep());
}

void keeper::look(store& where) {
    std::string listing = listing_of(m_settings.symbols);
    if (listing != m_seen) {
        for (fs::recursive_directory_iterator at(m_settings.symbols), end; at != end; ++at) {
            const fs::path& file = at->path();
            if (at->is_regular_file() && report_reader::lower_case(file.extension().string()) == ".exe") {
                try {
                    const report_reader::program_identity program = report_reader::identify_program(file);
                    if (!program.version.empty()) {
                        where.name_version(file.filename().string(), program.time_stamp, program.version);
                    }
                } catch (const std::runtime_error& error) {
                    std::fprintf(stderr, "lumaris-reports: %s\n", error.what());
                }
            }
        }
        m_seen = std::move(listing);
        m_has_new_symbols();
    }
    if (now() - m_swept >= between_sweeps) {
        m_swept = now();
        const auto oldest = [](std::int64_t days) { return days == 0 ? 0 : now() - days * day; };
        // A few at a time, since reports wait meanwhile.
        while (where.remove_before(oldest(m_settings.keep_full_days), oldest(m_settings.keep_short_days),
                                   removed_at_once) > 0 &&
               sleep()) {
        }
    }
}

} // namespace corvo::reports
