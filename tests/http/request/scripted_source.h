// An input stream whose reads a test lays down one by one. Portable.
#pragma once

#include "platform/last_error.h"
#include "stream/basic.h"

#include <cstring>
#include <deque>
#include <string>
#include <vector>

namespace test {

class scripted_source : public corvo::stream::basic {
public:
    using state_t = corvo::stream::state_t;

    scripted_source() = default;
    ~scripted_source() noexcept override = default; // unlike a stream's, so that a test fixture can hold one

    // What one read gives; it never gives more than it is asked for.
    struct step {
        std::string bytes;
        state_t state = state_t::ok;
        unsigned int last_error = 0; // set if it is not 0
    };

    // Without a step left a read is at the end.
    std::deque<step> steps;

    struct record {
        const void* data;
        std::size_t length;
    };
    std::vector<record> reads;

    void add(std::string bytes) { steps.push_back({std::move(bytes)}); }
    void set_state(state_t state) { m_state = state; }

    std::size_t read(void* data, std::size_t length) override {
        reads.push_back({data, length});
        if (steps.empty()) {
            m_state = state_t::eof;
            return 0;
        }
        const step next = std::move(steps.front());
        steps.pop_front();
        const std::size_t given = next.bytes.size() < length ? next.bytes.size() : length;
        std::memcpy(data, next.bytes.data(), given);
        if (given < next.bytes.size()) {
            steps.push_front({next.bytes.substr(given), next.state, next.last_error});
            m_state = state_t::ok;
            return given;
        }
        m_state = next.state;
        if (next.last_error != 0) {
            corvo::set_last_error(next.last_error);
        }
        return given;
    }
};

} // namespace test
