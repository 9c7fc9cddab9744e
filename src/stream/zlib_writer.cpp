#include "stream/zlib_writer.h"

#include "platform/last_error.h"
#include "stream/zlib_error.h"

#include <algorithm>
#include <exception>
#include <limits>
#include <system_error>

namespace corvo {

namespace {

constexpr std::size_t output_size = 4096;

// What the compressor's counter of input bytes holds.
constexpr std::size_t longest_input = std::numeric_limits<uInt>::max();

// Releases the compressor, also when finishing throws.
class deflate_end_guard {
public:
    explicit deflate_end_guard(z_stream& compressor) noexcept : m_compressor(compressor) {}
    deflate_end_guard(const deflate_end_guard&) = delete;
    deflate_end_guard& operator=(const deflate_end_guard&) = delete;

    ~deflate_end_guard() { ::deflateEnd(&m_compressor); }

private:
    z_stream& m_compressor;
};

void set_input(z_stream& compressor, const unsigned char* data, std::size_t length) noexcept {
    // Without ZLIB_CONST, which would have to hold for the whole program, the field is declared as changeable; the
    // compressor only reads.
    compressor.next_in = const_cast<unsigned char*>(data);
    compressor.avail_in = static_cast<uInt>(length);
}

} // namespace

zlib_writer::zlib_writer(stream::basic& target)
    : converter(target), m_exceptions(std::uncaught_exceptions()), m_outbuf_size(output_size),
      m_outbuf(new unsigned char[output_size]) {
    const int result = deflateInit(&m_zstr, Z_BEST_COMPRESSION);
    if (result < 0) {
        throw_zlib_error(result);
    }
}

zlib_writer::~zlib_writer() noexcept(false) {
    const deflate_end_guard guard(m_zstr);
    try {
        finish();
    } catch (...) {
        if (std::uncaught_exceptions() <= m_exceptions) {
            throw;
        }
    }
}

std::size_t zlib_writer::write(const void* data, std::size_t length) {
    const auto* const bytes = static_cast<const unsigned char*>(data);
    std::size_t taken = 0;
    while (taken < length) {
        const std::size_t piece = std::min(length - taken, longest_input);
        set_input(m_zstr, bytes + taken, piece);
        const bool handed_on = deflate_all(Z_NO_FLUSH);
        taken += piece - m_zstr.avail_in;
        if (!handed_on) {
            m_state = m_source.state();
            break;
        }
    }
    return taken;
}

void zlib_writer::finish() {
    // What a write that failed has left is the caller's, and may be gone.
    set_input(m_zstr, nullptr, 0);
    if (!deflate_all(Z_FINISH)) {
        throw_last_error("failed to flush compressed stream");
    }
}

bool zlib_writer::deflate_all(int flush) {
    do {
        m_zstr.next_out = m_outbuf.get();
        m_zstr.avail_out = static_cast<uInt>(m_outbuf_size);
        const int result = ::deflate(&m_zstr, flush);
        if (result < 0) {
            throw_zlib_error(result);
        }
        const std::size_t produced = m_outbuf_size - m_zstr.avail_out;
        if (produced > 0) {
            m_source.write(m_outbuf.get(), produced);
            if (!m_source.ok()) {
                return false;
            }
        }
    } while (m_zstr.avail_out == 0);
    return true;
}

} // namespace corvo
