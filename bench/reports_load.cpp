// Sends short reports to a report server, each with bytes of its own, and prints how many were answered in a second and how long
// an answer took: JSON on standard output.
//
//     reports_load PORT[,PORT] CONNECTIONS REPORTS RATE SEED PLACES
//
// RATE is reports a second, all connections together; 0 is as fast as it goes. With two ports every other connection goes to the second one.
// PLACES is how many different crashes there are.

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>
#include <zlib.h>

namespace {

using clock_type = std::chrono::steady_clock;

template <typename Number> void append(std::string& bytes, Number number) {
    for (std::size_t index = 0; index < sizeof(Number); ++index) {
        bytes += static_cast<char>(static_cast<std::uint64_t>(number) >> (8 * index));
    }
}

// A crash in one of so many places; the address makes the bytes differ.
std::string report(std::uint64_t number, std::uint64_t places) {
    std::string plain("TZO1\x64\xAA", 6);
    append<std::uint32_t>(plain, 0xC0000005);
    append<std::uint32_t>(plain, 0);
    append<std::uint64_t>(plain, number);
    append<std::uint32_t>(plain, 0);
    plain += "MOD1";
    append<std::uint32_t>(plain, 11);
    for (const char chr : std::string("halvoro.exe")) {
        append<std::uint16_t>(plain, static_cast<std::uint16_t>(chr));
    }
    append<std::uint32_t>(plain, 7);
    for (std::uint64_t frame = 0; frame < 10; ++frame) {
        plain += "FUN1";
        append<std::uint64_t>(plain, 0x1000 + (number % places) * 16 + frame * 4096);
    }
    std::string packed(compressBound(plain.size()), '\0');
    uLongf length = packed.size();
    compress2(reinterpret_cast<Bytef*>(packed.data()), &length, reinterpret_cast<const Bytef*>(plain.data()),
              plain.size(), 9);
    packed.resize(length);
    return packed;
}

int connect_to(std::uint16_t port) {
    const int handle = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int yes = 1;
    ::setsockopt(handle, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
    if (::connect(handle, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        std::perror("connect");
        std::exit(1);
    }
    return handle;
}

// Reads one answer with a Content-Length; returns its status, 0 for none.
int read_answer(int handle, std::string& buffer) {
    for (;;) {
        const std::size_t end = buffer.find("\r\n\r\n");
        if (end != std::string::npos) {
            std::size_t length = 0;
            const std::size_t at = buffer.find("ontent-") == std::string::npos ? end : 0;
            for (std::size_t line = at; line < end; line = buffer.find("\r\n", line + 2)) {
                if (::strncasecmp(buffer.c_str() + line + 2, "content-length:", 15) == 0) {
                    length = std::strtoul(buffer.c_str() + line + 17, nullptr, 10);
                }
            }
            if (buffer.size() >= end + 4 + length) {
                const int status = std::atoi(buffer.c_str() + 9);
                buffer.erase(0, end + 4 + length);
                return status;
            }
        }
        std::array<char, 4096> piece{};
        const ssize_t got = ::recv(handle, piece.data(), piece.size(), 0);
        if (got <= 0) {
            return 0;
        }
        buffer.append(piece.data(), static_cast<std::size_t>(got));
    }
}

} // namespace

int main(int count, char** arguments) {
    if (count != 7) {
        std::fprintf(stderr, "usage: reports_load PORT[,PORT] CONNECTIONS REPORTS RATE SEED PLACES\n");
        return 2;
    }
    const char* const comma = std::strchr(arguments[1], ',');
    const std::array ports{
        static_cast<std::uint16_t>(std::atoi(arguments[1])),
        static_cast<std::uint16_t>(std::atoi(comma == nullptr ? arguments[1] : comma + 1))};
    const std::size_t connections = std::strtoul(arguments[2], nullptr, 10);
    const std::uint64_t reports = std::strtoull(arguments[3], nullptr, 10);
    const double rate = std::atof(arguments[4]);
    const std::uint64_t seed = std::strtoull(arguments[5], nullptr, 10) << 32;
    const std::uint64_t places = std::strtoull(arguments[6], nullptr, 10);
    std::atomic<std::uint64_t> next{0};
    std::atomic<std::uint64_t> refused{0};
    std::vector<std::vector<double>> times(connections);
    std::vector<std::thread> threads;
    const clock_type::time_point begin = clock_type::now();
    for (std::size_t index = 0; index < connections; ++index) {
        threads.emplace_back([&, index] {
            const int handle = connect_to(ports[index % ports.size()]);
            std::string buffer;
            for (std::uint64_t number = 0; (number = next++) < reports;) {
                if (rate > 0) {
                    std::this_thread::sleep_until(
                        begin + std::chrono::duration_cast<clock_type::duration>(
                                    std::chrono::duration<double>(static_cast<double>(number) / rate)));
                }
                const std::string body = report(seed + number, places);
                std::array<char, 16> size{};
                std::snprintf(size.data(), size.size(), "%zx\r\n", body.size());
                const std::string request =
                    "POST /KestraneSprejem/sprejem/ HTTP/1.1\r\nHost: reports\r\nAccept-Language: en\r\n"
                    "Content-Type: application/x-kestranez\r\nTransfer-Encoding: chunked\r\n\r\n" +
                    std::string(size.data()) + body + "\r\n0\r\n\r\n";
                const clock_type::time_point sent = clock_type::now();
                if (::send(handle, request.data(), request.size(), MSG_NOSIGNAL) !=
                    static_cast<ssize_t>(request.size())) {
                    ++refused;
                    break;
                }
                const int status = read_answer(handle, buffer);
                refused += status != 200 && status != 449 ? 1U : 0U;
                times[index].push_back(
                    std::chrono::duration<double, std::milli>(clock_type::now() - sent).count());
            }
            ::close(handle);
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    const double seconds = std::chrono::duration<double>(clock_type::now() - begin).count();
    std::vector<double> all;
    for (const std::vector<double>& each : times) {
        all.insert(all.end(), each.begin(), each.end());
    }
    std::sort(all.begin(), all.end());
    const auto at = [&all](double part) {
        return all.empty() ? 0.0 : all[static_cast<std::size_t>(part * static_cast<double>(all.size() - 1))];
    };
    std::printf(R"({"rate": %.1f, "median": %.3f, "p99": %.3f, "refused": %llu})"
                "\n",
                static_cast<double>(all.size()) / seconds, at(0.5), at(0.99),
                static_cast<unsigned long long>(refused.load()));
    return refused == 0 ? 0 : 1;
}
