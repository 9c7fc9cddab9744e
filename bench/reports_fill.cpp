// Fills a database with as many reports as somebody has after years, through the server's own store: crashes of ten groups, of
// the last thirty days, from twenty builds and fifty thousand addresses.
//
//     reports_fill DATABASE COUNT BODY      BODY is a file with the bytes of a report

#include "tools/reports/digest.h"
#include "tools/reports/store.h"

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sodium.h>
#include <span>
#include <string>
#include <vector>

int main(int count, char** arguments) {
    using namespace corvo::reports;
    if (count != 4 || sodium_init() < 0) {
        std::fprintf(stderr, "usage: reports_fill DATABASE COUNT BODY\n");
        return 2;
    }
    constexpr std::uint64_t at_once = 1000;
    const std::uint64_t wanted = std::strtoull(arguments[2], nullptr, 10);
    std::ifstream file(arguments[3], std::ios::binary);
    const std::string content{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    const std::span<const std::byte> bytes = std::as_bytes(std::span(content.data(), content.size()));
    store where(open_database(arguments[1]));
    const milliseconds now = std::chrono::duration_cast<std::chrono::milliseconds>(
                                 std::chrono::system_clock::now().time_since_epoch())
                                 .count();
    const std::string salt = random_digits();
    for (std::uint64_t made = 0; made < wanted;) {
        std::vector<new_report> reports;
        for (; reports.size() < at_once && made < wanted; ++made) {
            new_report report{};
            report.body.assign(bytes.begin(), bytes.end());
            report.digest = digest_of(salt + std::to_string(made));
            report.common = report.digest;
            report.received = now - static_cast<milliseconds>((wanted - made) * 30 * day / wanted);
            report.address = short_digest(std::to_string(made % 50000));
            report.language = "en";
            report.machine = "ARM64";
            report.code = 0xC0000005;
            report.what = {"stored " + std::to_string(made % 10),
                           "access violation in stored_" + std::to_string(made % 10),
                           "/src/stored.cpp:1",
                           false,
                           "halvoro.exe",
                           static_cast<std::uint32_t>(made / 10 % 20)};
            reports.push_back(std::move(report));
        }
        where.keep(reports);
    }
    return 0;
}
