// How fast 10-byte pieces are read through `corvo::stream::cache` with a block of 4096 bytes beside the same pieces
// read from the file without it, one system call each, over one file in one run. The last line gives the ratio of the
// times; above 1 we are the faster one.

#include "bench/measure_pairs.h"
#include "stream/cache.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

using corvo::stream::foff;
using corvo::stream::fpos;
using corvo::stream::fsize;
using corvo::stream::seek_t;
using corvo::stream::state_t;

constexpr std::size_t length = std::size_t{8} << 20;

// A temporary file of this machine as a stream, without a buffer: what `file` is on Windows. Only what reading takes.
class native_file : public corvo::stream::basic_file {
public:
    explicit native_file(const char* pattern) : m_name(pattern), m_file(::mkstemp(m_name.data())) {
        ::unlink(m_name.c_str());
    }

    ~native_file() override { ::close(m_file); }

    std::size_t read(void* data, std::size_t size) override {
        const ssize_t done = ::read(m_file, data, size);
        m_state = done < 0 ? state_t::fail : done == 0 && size > 0 ? state_t::eof : state_t::ok;
        return done < 0 ? 0 : static_cast<std::size_t>(done);
    }

    std::size_t write(const void* data, std::size_t size) override {
        const ssize_t done = ::write(m_file, data, size);
        m_state = done == static_cast<ssize_t>(size) ? state_t::ok : state_t::fail;
        return done < 0 ? 0 : static_cast<std::size_t>(done);
    }

    fpos seek(foff offset, seek_t how) override {
        const off_t position = ::lseek(m_file, offset, static_cast<int>(how));
        m_state = position < 0 ? state_t::fail : state_t::ok;
        return position < 0 ? corvo::stream::fpos_max : static_cast<fpos>(position);
    }

    fpos tell() override { return static_cast<fpos>(::lseek(m_file, 0, SEEK_CUR)); }

    fsize size() override { return length; }

    void truncate() override { m_state = state_t::fail; }

private:
    std::string m_name;
    int m_file;
};

// The sum of all bytes, so that both are seen to read the same.
std::uint64_t read_all(corvo::stream::basic_file& stream) {
    std::array<unsigned char, 10> piece{};
    std::uint64_t sum = 0;
    stream.seek(0, corvo::stream::seek_beg);
    for (;;) {
        const std::size_t done = stream.read(piece.data(), piece.size());
        if (!stream.ok()) {
            return sum;
        }
        for (std::size_t index = 0; index < done; ++index) {
            sum += piece[index];
        }
    }
}

} // namespace

int main(int argc, char** argv) {
    const std::size_t runs = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 9;
    native_file file("/tmp/cache_bench.XXXXXX");
    std::vector<unsigned char> contents(length);
    for (std::size_t index = 0; index < length; ++index) {
        contents[index] = static_cast<unsigned char>(index * 31 + (index >> 12));
    }
    if (file.write(contents.data(), length) != length) {
        std::fprintf(stderr, "cannot write the temporary file\n");
        return 1;
    }
    std::uint64_t cached_sum = 0;
    std::uint64_t plain_sum = 0;
    const auto through_cache = [&] {
        corvo::stream::cache cached(file, 4096);
        cached_sum = read_all(cached);
    };
    const auto without = [&] { plain_sum = read_all(file); };
    const bench::pair_times times = bench::in_turns(runs, through_cache, without);
    if (cached_sum != plain_sum || cached_sum == 0) {
        std::fprintf(stderr, "the two do not read the same\n");
        return 1;
    }
    const double pieces = static_cast<double>(length) / 10;
    std::printf("  cached %.1f ns a piece, unbuffered %.1f ns a piece\n", times.first / pieces * 1e9,
                times.second / pieces * 1e9);
    std::printf("cache: times faster than unbuffered %.1f, to reach: at least 20.0: %s\n", times.ratio,
                times.ratio >= 20 ? "reached" : "missed");
    return 0;
}
