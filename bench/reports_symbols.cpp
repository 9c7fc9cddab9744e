// How long the names and lines of a report with fifty frames take once the program's symbols are loaded, each time at addresses that
// were not asked for before. Prints JSON with milliseconds.
//
//     reports_symbols FOLDER PROGRAM TIMES      FOLDER holds the program and its PDB

#include "tools/report_reader/report.h"
#include "tools/report_reader/symbol_store.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

int main(int count, char** arguments) {
    using namespace corvo::report_reader;
    if (count != 4) {
        std::fprintf(stderr, "usage: reports_symbols FOLDER PROGRAM TIMES\n");
        return 2;
    }
    constexpr std::size_t frames = 50;
    const std::filesystem::path program = std::filesystem::path(arguments[1]) / arguments[2];
    const program_identity identity = identify_program(program);
    const int times = std::atoi(arguments[3]);
    report asked{};
    asked.modules.emplace_back();
    for (const char chr : std::string(arguments[2])) {
        asked.modules[0].name += static_cast<char16_t>(chr);
    }
    asked.modules[0].time_stamp = identity.time_stamp;
    asked.frames.resize(frames);
    std::mt19937 random(1);
    const auto has_line = [](const code_chain& chain) {
        return !chain.empty() && !chain.front().source.empty();
    };
    // Addresses in code of our own; another store looks for them, so that what is measured does not know them.
    std::vector<std::uint64_t> addresses;
    {
        symbol_store other({arguments[1]});
        module_symbols* const known = other.find(arguments[2], identity.time_stamp);
        while (known != nullptr && addresses.size() < frames * (static_cast<std::size_t>(times) + 1)) {
            const std::uint64_t offset = 0x1000 + random() % (identity.size_of_image - 0x1000);
            if (has_line(known->find(offset, false))) {
                addresses.push_back(offset);
            }
        }
    }
    symbol_store symbols({arguments[1]});
    std::size_t next = 0;
    std::vector<double> taken;
    std::size_t named = 0;
    double cold = 0;
    for (int time = 0; time <= times; ++time) {
        for (frame& each : asked.frames) {
            each.offset = addresses.at(next++);
        }
        const auto begin = std::chrono::steady_clock::now();
        const std::vector<code_chain> chains = symbols.find(asked);
        const double each =
            std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - begin).count();
        if (time == 0) {
            cold = each;
            continue;
        }
        taken.push_back(each);
        named += static_cast<std::size_t>(std::count_if(chains.begin(), chains.end(), has_line));
    }
    std::sort(taken.begin(), taken.end());
    std::printf(R"({"cold": %.3f, "median": %.3f, "most": %.3f, "named": %.3f})"
                "\n",
                cold, taken[taken.size() / 2], taken.back(),
                static_cast<double>(named) / static_cast<double>(frames * taken.size()));
    return 0;
}
