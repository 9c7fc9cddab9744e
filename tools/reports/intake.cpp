#include "tools/reports/intake.h"

#include "tools/report_reader/inflate.h"
#include "tools/report_reader/names.h"
#include "tools/report_reader/report.h"
#include "tools/reports/digest.h"

#include <chrono>
#include <cstdio>
#include <exception>
#include <span>
#include <utility>

namespace corvo::reports {

namespace {

namespace reader = report_reader;

constexpr std::size_t most_in_a_batch = 64;
constexpr std::size_t most_described = 20000;
constexpr int tries = 3;
constexpr std::int64_t regrouped_at_once = 100;
constexpr auto between_tries = std::chrono::seconds(2);

milliseconds now() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

void complain(const char* about, const std::exception& error) {
    std::fprintf(stderr, "lumaris-reports: %s: %s\n", about, error.what());
}

} // namespace

struct intake::waiting {
    blob body;
    blob digest;
    reader::report report; // without the stack's memory, which takes most of a report
    std::string address;
    language wanted;
    milliseconds received;
    answer_function answer;
};

intake::intake(intake_settings settings, metrics& counted)
    : m_settings(std::move(settings)), m_metrics(counted),
      m_store(std::make_unique<store>(open_database(m_settings.database))), m_salt(m_store->salt()),
      m_symbols(m_settings.symbols), m_thread([this] { work(); }) {}

intake::~intake() {
    {
        const std::lock_guard lock(m_mutex);
        m_ends = true;
    }
    m_wake.notify_one();
    m_thread.join();
}

void intake::deliver(delivery given, answer_function answer) {
    const language wanted = language_of(given.language);
    m_metrics.count_bytes(given.body.size());
    const std::span<const std::byte> bytes = std::as_bytes(std::span(given.body.data(), given.body.size()));
    waiting next{};
    try {
        next.report = reader::parse_report(reader::inflate(bytes, m_settings.largest_report));
        for (reader::frame& frame : next.report.frames) {
            frame.stack.reset();
        }
        next.body.assign(bytes.begin(), bytes.end());
    } catch (const reader::damage&) {
        m_metrics.count(outcome::refused);
        answer(refuse(400, wanted));
        return;
    } catch (const std::bad_alloc&) {
        m_metrics.count(outcome::overloaded);
        answer(come_again());
        return;
    }
    next.digest = digest_of(bytes);
    next.address =
        m_settings.keep_addresses ? std::move(given.address) : short_digest(m_salt + given.address);
    next.wanted = wanted;
    next.received = now();
    std::unique_lock lock(m_mutex);
    if (m_queue.size() >= m_settings.most_waiting ||
        m_queued_bytes + next.body.size() > m_settings.most_waiting_bytes) {
        lock.unlock();
        m_metrics.count(outcome::overloaded);
        answer(come_again());
        return;
    }
    next.answer = std::move(answer);
    m_queued_bytes += next.body.size();
    m_queue.push_back(std::move(next));
    m_metrics.set_waiting(m_queue.size());
    lock.unlock();
    m_wake.notify_one();
}

void intake::regroup() {
    {
        const std::lock_guard lock(m_mutex);
        m_regroup = true;
    }
    m_wake.notify_one();
}

void intake::work() {
    std::vector<waiting> batch;
    while (wait_for_work(batch)) {
        if (!batch.empty()) {
            keep(batch);
            batch.clear();
        }
    }
}

// False at the end, when nothing waits any more.
bool intake::wait_for_work(std::vector<waiting>& batch) {
    std::unique_lock lock(m_mutex);
    const auto is_work = [this] { return m_ends || !m_queue.empty(); };
    if (m_regroup) {
        m_wake.wait_until(lock, m_regroup_after, is_work);
    } else {
        m_wake.wait(lock, [&] { return is_work() || m_regroup; });
    }
    if (m_regroup && !m_ends && std::chrono::steady_clock::now() >= m_regroup_after) {
        m_regroup = false;
        lock.unlock();
        if (!look_again()) {
            lock.lock();
            m_regroup = true;
            m_regroup_after = std::chrono::steady_clock::now() + between_tries;
        }
        return true;
    }
    while (!m_queue.empty() && batch.size() < most_in_a_batch) {
        m_queued_bytes -= m_queue.front().body.size();
        batch.push_back(std::move(m_queue.front()));
        m_queue.pop_front();
    }
    m_metrics.set_waiting(m_queue.size());
    return !batch.empty() || !m_ends;
}

crash intake::describe_known(const reader::report& report) {
    const std::string frames = frames_of(report);
    const auto known = m_described.find(frames);
    if (known != m_described.end()) {
        return known->second;
    }
    crash what = describe(report, m_symbols.find(report));
    for (const std::string& refusal : m_symbols.take_refusals()) {
        std::fprintf(stderr, "lumaris-reports: %s\n", reader::printable(refusal).c_str());
    }
    // Hostile senders can invent as many as they like.
    if (m_described.size() >= most_described) {
        m_described.clear();
    }
    return m_described.emplace(frames, std::move(what)).first->second;
}

void intake::keep(std::vector<waiting>& batch) {
    const auto begin = std::chrono::steady_clock::now();
    std::vector<std::optional<kept>> results;
    try {
        std::vector<new_report> reports;
        reports.reserve(batch.size());
        for (waiting& each : batch) {
            reports.push_back({std::move(each.body), each.digest, digest_of(common_part(each.report)),
                               each.report.kind == reader::report_kind::full, each.received, each.address,
                               std::string(code_of(each.wanted)),
                               std::string(reader::machine_name(each.report.machine)),
                               each.report.records.front().code, describe_known(each.report)});
        }
        results = keep_each(reports);
    } catch (const std::exception& error) {
        complain("reports cannot be stored, and their senders keep them", error);
        // A connection that has failed is made anew with the next delivery.
        m_store.reset();
        results.assign(batch.size(), std::nullopt);
    }
    m_metrics.count_write(batch.size(),
                          std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count());
    answer_all(batch, results);
}

void intake::answer_all(std::vector<waiting>& batch, const std::vector<std::optional<kept>>& results) {
    for (std::size_t index = 0; index < batch.size(); ++index) {
        if (!results[index]) {
            m_metrics.count(outcome::failed);
            batch[index].answer(come_again());
            continue;
        }
        const kept& result = *results[index];
        m_metrics.count(result.is_duplicate ? outcome::duplicate : outcome::stored);
        const answer given = answer_to(batch[index], result);
        if (given.status == 449) {
            m_metrics.count(outcome::full_wanted);
        } else if (!result.mended_in.empty()) {
            m_metrics.count(outcome::mended);
        }
        batch[index].answer(given);
    }
}

// One that the database does not take must not keep the others out.
std::vector<std::optional<kept>> intake::keep_each(const std::vector<new_report>& reports) {
    std::vector<std::optional<kept>> results;
    try {
        const std::vector<kept> all = keep_all(reports);
        results.assign(all.begin(), all.end());
        return results;
    } catch (const database_error& error) {
        if (error.is_transient() || reports.size() == 1) {
            throw;
        }
    }
    for (const new_report& report : reports) {
        try {
            results.emplace_back(keep_all({report}).front());
        } catch (const database_error& error) {
            if (error.is_transient()) {
                throw;
            }
            complain("a report cannot be stored, and its sender keeps it", error);
            results.emplace_back(std::nullopt);
        }
    }
    return results;
}

std::vector<kept> intake::keep_all(const std::vector<new_report>& reports) {
    for (int left = tries;; --left) {
        try {
            if (m_store == nullptr) {
                m_store = std::make_unique<store>(open_database(m_settings.database));
            }
            return m_store->keep(reports);
        } catch (const database_error& error) {
            if (!error.is_transient() || left <= 1) {
                throw;
            }
        }
    }
}

answer intake::answer_to(const waiting& given, const kept& result) const {
    if (!result.mended_in.empty()) {
        return say_mended(given.wanted, result.mended_in);
    }
    if (given.report.kind == reader::report_kind::brief &&
        result.full_reports < m_settings.full_reports_wanted) {
        return ask_for_full_report(given.wanted);
    }
    return thank(given.wanted);
}

// A piece at a time, so that deliveries do not wait for all of it. False when it has failed.
bool intake::look_again() {
    m_symbols.forget();
    m_described.clear();
    std::optional<std::int64_t> last = 0;
    try {
        while (last) {
            std::vector<waiting> batch;
            if (m_store == nullptr) {
                m_store = std::make_unique<store>(open_database(m_settings.database));
            }
            last =
                m_store->regroup(*last, regrouped_at_once, [this](const blob& body) -> std::optional<crash> {
                    try {
                        return describe_known(
                            reader::parse_report(reader::inflate(body, m_settings.largest_report)));
                    } catch (const reader::damage&) {
                        return std::nullopt; // it was taken with a larger limit
                    }
                });
            {
                const std::lock_guard lock(m_mutex);
                if (m_ends) {
                    return true;
                }
                while (!m_queue.empty() && batch.size() < most_in_a_batch) {
                    m_queued_bytes -= m_queue.front().body.size();
                    batch.push_back(std::move(m_queue.front()));
                    m_queue.pop_front();
                }
            }
            if (!batch.empty()) {
                keep(batch);
            }
        }
    } catch (const std::exception& error) {
        complain("reports cannot be grouped again", error);
        m_store.reset();
        return false;
    }
    return true;
}

} // namespace corvo::reports
