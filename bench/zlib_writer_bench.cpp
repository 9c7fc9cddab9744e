// How fast `corvo::zlib_writer` compresses 64 MB of mixed data beside zlib at level 9 called directly, over the
// same data in one run. The last line gives the ratio of the throughputs; above 1 we are the faster one.
//
// zlib gets all input and room for all output at once; the writer gets the input in pieces of 64 KiB, as a program
// would write it, and carries its output through its 4096-byte buffer into a stream that keeps it. The comparison
// is thus the harder one for us.

#include "bench/measure_pairs.h"
#include "stream/zlib_writer.h"

#include <zlib.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

namespace {

using bytes = std::vector<unsigned char>;

constexpr std::size_t length = std::size_t{64} << 20;
constexpr std::size_t piece = 0x10000;

// Log lines, records of small numbers, noise and zeros, in runs of a few kilobytes.
bytes mixed_data() {
    std::mt19937 random(1);
    bytes data;
    data.reserve(length + 0x4000);
    while (data.size() < length) {
        const std::size_t run = 1024 + random() % 8192;
        const std::size_t end = data.size() + run;
        switch (random() % 4) {
        case 0:
            while (data.size() < end) {
                char line[96];
                const int size = std::snprintf(
                    line, sizeof line, "20:%02u:%02u worker %u finished request %u\n",
                    static_cast<unsigned>(random() % 60), static_cast<unsigned>(random() % 60),
                    static_cast<unsigned>(random() % 16), static_cast<unsigned>(random() % 100000));
                data.insert(data.end(), line, line + size);
            }
            break;
        case 1:
            while (data.size() < end) {
                const std::size_t number = data.size() / 8;
                const auto value = static_cast<unsigned int>(random());
                data.insert(data.end(),
                            {static_cast<unsigned char>(number), static_cast<unsigned char>(number >> 8),
                             static_cast<unsigned char>(number >> 16), 0, static_cast<unsigned char>(value),
                             static_cast<unsigned char>(value >> 8), 1, 0});
            }
            break;
        case 2:
            while (data.size() < end) {
                data.push_back(static_cast<unsigned char>(random()));
            }
            break;
        default:
            data.insert(data.end(), run, 0);
        }
    }
    data.resize(length);
    return data;
}

// Keeps what is written to it, in memory that is there already.
class kept : public corvo::stream::basic {
public:
    explicit kept(std::size_t room) : m_data(room) {}

    std::size_t write(const void* data, std::size_t size) override {
        if (size > m_data.size() - m_size) {
            m_state = corvo::stream::state_t::fail;
            return 0;
        }
        std::memcpy(m_data.data() + m_size, data, size);
        m_size += size;
        return size;
    }

    void clear() { m_size = 0; }

    [[nodiscard]] bytes contents() const {
        return {m_data.begin(), m_data.begin() + static_cast<std::ptrdiff_t>(m_size)};
    }

private:
    bytes m_data;
    std::size_t m_size = 0;
};

[[noreturn]] void give_up(const char* what) {
    std::fprintf(stderr, "%s\n", what);
    std::exit(1);
}

} // namespace

int main(int argc, char** argv) {
    const std::size_t runs = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 5;
    const bytes data = mixed_data();
    kept target(compressBound(length));
    bytes direct(compressBound(length));
    uLongf direct_length = 0;
    const auto through_writer = [&] {
        target.clear();
        corvo::zlib_writer writer(target);
        for (std::size_t done = 0; done < length; done += piece) {
            writer.write(data.data() + done, std::min(piece, length - done));
        }
        if (!writer.ok()) {
            give_up("the writer failed");
        }
    };
    const auto by_zlib = [&] {
        direct_length = static_cast<uLongf>(direct.size());
        if (compress2(direct.data(), &direct_length, data.data(), length, 9) != Z_OK) {
            give_up("zlib failed");
        }
    };
    const bench::pair_times times = bench::in_turns(runs, through_writer, by_zlib);
    direct.resize(direct_length);
    if (target.contents() != direct) {
        give_up("the two do not give the same bytes");
    }
    std::printf("  writer %.1f MB/s, zlib %.1f MB/s, 64 MB become %.1f MB\n", 64 / times.first,
                64 / times.second, static_cast<double>(direct_length) / (1 << 20));
    std::printf("zlib_writer: throughput over zlib's %.3f, to reach: at least 0.970: %s\n", times.ratio,
                times.ratio >= 0.97 ? "reached" : "missed");
    return 0;
}
