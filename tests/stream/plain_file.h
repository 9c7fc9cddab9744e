// A random-access file in memory that behaves like one on disk, for the tests of what stands in front of a file:
// bytes between the old end and a write or a cut beyond it are zero.
//
// Writes down every call with its position and length ("read 4096+10"), and fails the calls that the test chooses,
// with last error 5. Written for the tests, and shares nothing with the streams under test.
#pragma once

#include "platform/last_error.h"
#include "stream/basic_file.h"

#include <algorithm>
#include <cstring>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace test {

class plain_file : public corvo::stream::basic_file {
public:
    using bytes = std::vector<unsigned char>;
    using calls = std::vector<std::string>;

    plain_file() = default;

    explicit plain_file(bytes contents) : m_contents(std::move(contents)) {}

    [[nodiscard]] const bytes& contents() const { return m_contents; }

    // The calls since the last time that this was asked.
    calls made() { return std::exchange(m_calls, {}); }

    // From now on calls of this name ("read") fail.
    void fail(const std::string& name) { m_failing.insert(name); }

    void mend() { m_failing.clear(); }

    void put(corvo::stream::state_t state) { m_state = state; }

    std::size_t read(void* data, std::size_t length) override {
        if (!note("read", span_of(length))) {
            return 0;
        }
        const std::size_t there = m_position < m_contents.size() ? m_contents.size() - m_position : 0;
        const std::size_t done = std::min(length, there);
        if (done > 0) {
            std::memcpy(data, m_contents.data() + m_position, done);
            m_position += done;
        } else if (length > 0) {
            m_state = corvo::stream::state_t::eof;
        }
        return done;
    }

    std::size_t write(const void* data, std::size_t length) override {
        if (!note("write", span_of(length)) || length == 0) {
            return 0;
        }
        m_contents.resize(std::max<std::size_t>(m_contents.size(), m_position + length));
        std::memcpy(m_contents.data() + m_position, data, length);
        m_position += length;
        return length;
    }

    void flush() override { note("flush"); }

    void close() override { note("close"); }

    corvo::stream::fpos seek(corvo::stream::foff offset, corvo::stream::seek_t how) override {
        if (!note("seek", std::to_string(offset))) {
            return corvo::stream::fpos_max;
        }
        const corvo::stream::foff origin = how == corvo::stream::seek_beg ? 0
                                           : how == corvo::stream::seek_cur
                                               ? static_cast<corvo::stream::foff>(m_position)
                                               : static_cast<corvo::stream::foff>(m_contents.size());
        if (origin + offset < 0) {
            throw std::invalid_argument("negative file offset");
        }
        m_position = static_cast<std::size_t>(origin + offset);
        return m_position;
    }

    corvo::stream::fpos tell() override { return m_position; }

    corvo::stream::fsize size() override {
        return m_failing.contains("size") ? corvo::stream::fpos_max : m_contents.size();
    }

    void truncate() override {
        if (note("truncate", std::to_string(m_position))) {
            m_contents.resize(m_position);
        }
    }

    void lock(corvo::stream::fpos offset, corvo::stream::fsize length) override {
        note("lock", std::to_string(offset) + "+" + std::to_string(length));
    }

    void unlock(corvo::stream::fpos offset, corvo::stream::fsize length) override {
        note("unlock", std::to_string(offset) + "+" + std::to_string(length));
    }

    corvo::stream::time_point ctime() override { return note("ctime") ? 101 : 0; }

    corvo::stream::time_point atime() override { return note("atime") ? 102 : 0; }

    corvo::stream::time_point mtime() override { return note("mtime") ? 103 : 0; }

    void set_ctime(corvo::stream::time_point time) override { note("set_ctime", std::to_string(time)); }

    void set_atime(corvo::stream::time_point time) override { note("set_atime", std::to_string(time)); }

    void set_mtime(corvo::stream::time_point time) override { note("set_mtime", std::to_string(time)); }

private:
    [[nodiscard]] std::string span_of(std::size_t length) const {
        return std::to_string(m_position) + "+" + std::to_string(length);
    }

    bool note(const std::string& name, const std::string& what = {}) {
        m_calls.push_back(what.empty() ? name : name + " " + what);
        if (m_failing.contains(name)) {
            corvo::set_last_error(5);
            m_state = corvo::stream::state_t::fail;
            return false;
        }
        m_state = corvo::stream::state_t::ok;
        return true;
    }

    bytes m_contents;
    std::size_t m_position = 0;
    calls m_calls;
    std::set<std::string> m_failing;
};

// Bytes that show where they stand: no two neighbouring blocks are the same.
inline plain_file::bytes numbered(std::size_t length) {
    plain_file::bytes bytes(length);
    for (std::size_t index = 0; index < length; ++index) {
        bytes[index] = static_cast<unsigned char>(1 + (index * 7 + index / 251) % 255);
    }
    return bytes;
}

} // namespace test
