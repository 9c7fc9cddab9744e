// Takes reports in: reads them, groups them, keeps them, and decides on the answer.
//
// Deliveries wait in a bounded queue for one thread, which writes those that are there in one transaction and answers each
// once that is on the disk. deliver() may be called by any thread; the answer comes on the intake's thread, or at once if
// nothing has to be kept. Nothing inside makes an answer in text/plain.
#pragma once

#include "tools/report_reader/symbol_store.h"
#include "tools/reports/answers.h"
#include "tools/reports/metrics.h"
#include "tools/reports/store.h"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

namespace corvo::reports {

struct intake_settings {
    std::string database;
    std::vector<std::filesystem::path> symbols;
    std::int64_t full_reports_wanted = 3;                       // of each group
    std::size_t largest_report = std::size_t{16} * 1024 * 1024; // inflated
    std::size_t most_waiting = 1000;
    std::size_t most_waiting_bytes = std::size_t{64} * 1024 * 1024;
    bool keep_addresses = false; // instead of a digest with a salt
};

struct delivery {
    std::string body;
    std::string address;
    std::string language; // Accept-Language
};

using answer_function = std::function<void(const answer&)>;

class intake {
public:
    // Throws `database_error` if the database cannot be opened.
    intake(intake_settings settings, metrics& counted);
    // Answers what waits.
    ~intake();
    intake(const intake&) = delete;
    intake& operator=(const intake&) = delete;

    void deliver(delivery given, answer_function answer);

    // There are new symbols: what could not be named is looked at again.
    void regroup();

private:
    struct waiting;

    void work();
    bool wait_for_work(std::vector<waiting>& batch);
    void keep(std::vector<waiting>& batch);
    void answer_all(std::vector<waiting>& batch, const std::vector<std::optional<kept>>& results);
    std::vector<std::optional<kept>> keep_each(const std::vector<new_report>& reports);
    std::vector<kept> keep_all(const std::vector<new_report>& reports);
    crash describe_known(const report_reader::report& report);
    answer answer_to(const waiting& given, const kept& result) const;
    bool look_again();

    intake_settings m_settings;
    metrics& m_metrics;
    std::unique_ptr<store> m_store; // null after a failure, until the next delivery
    std::string m_salt;
    report_reader::symbol_store m_symbols;
    std::unordered_map<std::string, crash> m_described; // by frames_of()

    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::deque<waiting> m_queue;
    std::size_t m_queued_bytes = 0;
    bool m_regroup = false;
    std::chrono::steady_clock::time_point
        m_regroup_after; // a failure is not followed by the next try at once
    bool m_ends = false;
    std::thread m_thread;
};

} // namespace corvo::reports
