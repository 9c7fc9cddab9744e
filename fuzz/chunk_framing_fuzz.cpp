// Fuzzes the framing of an uploaded body.
//
// The input lays down what each read of the source gives and in which state it leaves it. What holds for
// every such source: each read becomes a chunk of just its bytes, a reader of its own takes the body apart
// again, nothing outside a chunk's place in the buffer is written (the buffer is watched by the sanitizer,
// too), and the first turn after a failure throws its error.
#include "http/request/chunk_framing.h"
#include "platform/last_error.h"
#include "tests/support/chunked_body.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

namespace {

using corvo::stream::state_t;

void require(bool condition) {
    if (!condition) {
        std::abort();
    }
}

constexpr char untouched = '\x5A';
constexpr unsigned int error_of_a_failed_read = 5;
constexpr std::size_t most_reads = 64;

// Three bytes of the input a read: two for its size and one for the state afterwards. The data is the whole
// input over and over, so that it can hold what looks like framing.
class source : public corvo::stream::basic {
public:
    source(std::string_view script, webio::chunk_buffer& buffer)
        : m_script(script), m_rest(script), m_buffer(buffer) {}

    std::size_t read(void* data, std::size_t length) override {
        require(data == m_buffer.data() + 10);
        require(length == 8180);
        ++reads;
        last_read.clear();
        if (m_rest.size() < 3 || reads > most_reads) {
            m_state = state_t::eof;
            return 0;
        }
        const auto low = static_cast<unsigned char>(m_rest[0]);
        const auto high = static_cast<unsigned char>(m_rest[1]);
        const std::size_t size = (low + 256u * high) % 8181;
        const auto state = static_cast<unsigned char>(m_rest[2]);
        m_rest.remove_prefix(3);
        while (last_read.size() < size) {
            last_read += m_script;
        }
        last_read.resize(size);
        std::memcpy(data, last_read.data(), size);
        m_state = state < 8 ? state_t::fail : state < 16 ? state_t::eof : state_t::ok;
        if (m_state == state_t::fail) {
            corvo::set_last_error(error_of_a_failed_read);
        }
        return size;
    }

    std::size_t reads = 0;
    std::string last_read;

private:
    std::string_view m_script;
    std::string_view m_rest;
    webio::chunk_buffer& m_buffer;
};

bool is_untouched(const char* from, const char* to) {
    for (; from != to; ++from) {
        if (*from != untouched) {
            return false;
        }
    }
    return true;
}

void check_place(const webio::chunk& made, std::size_t size, const webio::chunk_buffer& buffer) {
    const char* const start = made.bytes.data();
    const char* const end = start + made.bytes.size();
    require(start >= buffer.data() && start < buffer.data() + 10);
    require(end == buffer.data() + 10 + size + 2);
    require(is_untouched(buffer.data(), start) && is_untouched(end, buffer.data() + buffer.size()));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto buffer = std::make_unique<webio::chunk_buffer>();
    source input(std::string_view(reinterpret_cast<const char*>(data), size), *buffer);
    std::string wire;
    std::vector<std::string> expected;
    for (bool last = false; !last;) {
        const bool failed = input.state() == state_t::fail;
        const std::size_t reads = input.reads;
        buffer->fill(untouched);
        try {
            const webio::chunk made = webio::next_chunk(input, *buffer);
            require(!failed && input.reads == reads + 1);
            require(made.last == input.last_read.empty());
            last = made.last;
            if (last) {
                require(made.bytes == "0\r\n\r\n");
            } else {
                check_place(made, input.last_read.size(), *buffer);
                expected.push_back(input.last_read);
            }
            wire += made.bytes;
        } catch (const std::system_error& error) {
            require(failed && input.reads == reads);
            require(error.code().value() == int{error_of_a_failed_read});
            require(error.code().category() == std::system_category());
            wire += "0\r\n\r\n"; // what was sent before is a body but for its end
            last = true;
        }
    }

    const support::chunked_body body(wire);
    require(body.result() == support::chunked_body::outcome::complete);
    require(body.rest().empty());
    require(body.chunks().size() == expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) {
        require(body.chunks()[i] == expected[i]);
    }
    return 0;
}
