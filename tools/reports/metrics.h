// What the server counts of itself, for Prometheus (text format 0.0.4). Any thread.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <string>

namespace corvo::reports {

enum class outcome { stored, duplicate, full_wanted, mended, refused, too_large, overloaded, failed };
constexpr std::size_t outcomes = 8;

class metrics {
public:
    void count(outcome what) noexcept { ++m_outcomes[static_cast<std::size_t>(what)]; }
    void count_bytes(std::uint64_t bytes) noexcept { m_bytes += bytes; }
    void set_waiting(std::uint64_t deliveries) noexcept { m_waiting = deliveries; }
    void count_refused_connection() noexcept { ++m_refused_connections; }
    void count_cut_request() noexcept { ++m_cut_requests; }
    void set_unfinished_connections(std::uint64_t connections) noexcept { m_unfinished = connections; }
    void count_write(std::uint64_t reports, double seconds) noexcept {
        ++m_writes;
        m_written += reports;
        m_write_microseconds += static_cast<std::uint64_t>(seconds * 1e6);
    }

    std::uint64_t counted(outcome what) const noexcept { return m_outcomes[static_cast<std::size_t>(what)]; }

    // One line a sample, each with its type and help before it.
    std::string text() const;

private:
    std::array<std::atomic<std::uint64_t>, outcomes> m_outcomes{};
    std::atomic<std::uint64_t> m_bytes{0};
    std::atomic<std::uint64_t> m_waiting{0};
    std::atomic<std::uint64_t> m_refused_connections{0};
    std::atomic<std::uint64_t> m_cut_requests{0};
    std::atomic<std::uint64_t> m_unfinished{0};
    std::atomic<std::uint64_t> m_writes{0};
    std::atomic<std::uint64_t> m_written{0};
    std::atomic<std::uint64_t> m_write_microseconds{0};
};

} // namespace corvo::reports
