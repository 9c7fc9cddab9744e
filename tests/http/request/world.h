// What the tests of whole exchanges share: one exchange over the replaced WinHTTP, with its URL, connection, handlers, body and indicator.
#pragma once

#include "http/parser/url_parts.h"
#include "http/request/connection.h"
#include "http/request/session.h"
#include "platform/progress.h"
#include "stream/memory_file.h"
#include "tests/support/fake_winhttp.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace test {

using header_line = std::function<void(const char*, std::size_t)>;
using content_length = std::function<void(std::uint32_t)>;

// Far more than anything takes; only ends a test that hangs.
constexpr auto patience = std::chrono::seconds(60);

// Counts how often it is asked and cancels, or throws, at the given turn. Its positions go to the log of the calls, if it has one.
class indicator : public corvo::progress<std::uint64_t> {
public:
    explicit indicator(support::fake_winhttp* log) : m_log(log) {}
    void set_range(std::uint64_t start, std::uint64_t end) override {
        note("set_range " + std::to_string(start) + " " + std::to_string(end));
    }
    void set(std::uint64_t position) override {
        note("set " + std::to_string(position));
        if (set_throws) {
            throw std::domain_error("from set");
        }
    }
    bool cancel() override {
        ++asked;
        if (when_asked) {
            when_asked();
        }
        if (asked == throw_at) {
            throw std::domain_error("from cancel");
        }
        return cancel_at != 0 && asked >= cancel_at;
    }
    std::vector<std::string> reported; // without a log
    int asked = 0;
    int cancel_at = 0;
    int throw_at = 0;
    bool set_throws = false;
    std::function<void()> when_asked; // on the thread that asks

private:
    void note(const std::string& call) {
        if (m_log != nullptr) {
            m_log->note(call);
        } else {
            reported.push_back(call);
        }
    }

    support::fake_winhttp* m_log;
};

// A body that can be refused. Its writes go to the log of the calls, if it has one.
class sink : public corvo::stream::memory_file {
public:
    explicit sink(support::fake_winhttp* log) : m_log(log) {}
    ~sink() noexcept override = default; // so that a fixture can hold it
    std::size_t write(const void* data, std::size_t length) override {
        if (m_log != nullptr) {
            m_log->note("write " + std::to_string(length));
        }
        if (refuse) {
            m_state = corvo::stream::state_t::fail;
            ::SetLastError(ERROR_DISK_FULL);
            return 0;
        }
        return discards ? length : memory_file::write(data, length);
    }
    std::string text() const {
        return m_size == 0 ? std::string() : std::string(reinterpret_cast<const char*>(data()), m_size);
    }
    bool refuse = false;
    bool discards = false;

private:
    support::fake_winhttp* m_log;
};

// What goes to the log of the calls.
enum class logged { calls_of_the_platform, everything };

struct exchange_world {
    exchange_world(support::fake_winhttp::delivery how, std::size_t threads, logged what)
        : http(how, threads), m_log(what == logged::everything ? &http : nullptr) {
        url.host = "host.example";
        url.path = "/path";
        server.emplace(session, url);
        http.calls.clear();
    }

    support::fake_winhttp http;

private:
    support::fake_winhttp* m_log;

    void note(const std::string& call) {
        if (m_log != nullptr) {
            m_log->note(call);
        }
    }

public:
    webio::session session{"Test/1", {1, 2, 3, 4}};
    webio::url_parts url;
    std::optional<webio::connection> server;
    std::vector<std::string> lines;
    std::vector<std::uint32_t> lengths;
    header_line on_line = [this](const char* line, std::size_t length) {
        lines.emplace_back(line, length);
        note("line");
    };
    content_length on_length = [this](std::uint32_t length) {
        lengths.push_back(length);
        note("length " + std::to_string(length));
    };
    sink body{m_log};
    indicator progress{m_log};
};

} // namespace test
