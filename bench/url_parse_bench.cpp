// How long `webio::parse_url` takes beside Boost.URL's `parse_uri` with host and port read, over the same
// texts in one run. The two run in turns, several times each, and the medians are compared, so that a busy
// machine slows both alike. The last line gives the ratio; below 1 we are the faster one.
//
// Ours makes a record that owns its strings; Boost.URL's is read through views into the text, which copy
// nothing. The comparison is thus the harder one for us.

#include "http/parser/url_parts.h"

#include <benchmark/benchmark.h>
#include <boost/url/parse.hpp>
#include <boost/url/url_view.hpp>

#include <array>
#include <cstddef>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace {

const std::array<std::string, 8> texts{
    "http://updates.tavrin.example/Halvoro/",
    "http://updates.tavrin.example/Halvoro/Lumaris/stable-win11.txt",
    "https://updates.tavrin.example:8443/Halvoro/3.4.1/packages/",
    "http://user:pass:word@proxy.tavrin.example:3128/a/b/c.txt?key=value&other=1#top",
    "http://192.168.10.25:8080/Halvoro/Lumaris/",
    "http://[2001:db8::8:800:200c:417a]:8080/Halvoro/Lumaris/?v=1.2.3",
    "wss://host/",
    "https://a-rather-long-label.another-rather-long-label.downloads.tavrin.example/a/long/path/that/goes/on/"
    "and/"
    "on/through/many/folders/until/it/ends/Halvoro.ARM64-sl.msi?token=0123456789abcdef0123456789abcdef",
};

void ours(benchmark::State& state, std::size_t first, std::size_t last) {
    for (auto _ : state) {
        for (std::size_t index = first; index < last; ++index) {
            webio::url_parts parts = webio::parse_url(texts[index]);
            benchmark::DoNotOptimize(parts);
        }
    }
}

void boost_url(benchmark::State& state, std::size_t first, std::size_t last) {
    for (auto _ : state) {
        for (std::size_t index = first; index < last; ++index) {
            const auto parsed = boost::urls::parse_uri(texts[index]);
            auto host = parsed->encoded_host();
            auto port = parsed->port_number();
            benchmark::DoNotOptimize(host);
            benchmark::DoNotOptimize(port);
        }
    }
}

// Prints as usual and keeps the medians.
class median_reporter : public benchmark::ConsoleReporter {
public:
    median_reporter() : ConsoleReporter(OO_None) {}

    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median") {
                m_medians[run.run_name.function_name] = run.GetAdjustedCPUTime();
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }

    double median(const std::string& name) const {
        const auto found = m_medians.find(name);
        return found == m_medians.end() ? 0.0 : found->second;
    }

private:
    std::map<std::string, double> m_medians;
};

void add_pair(const std::string& name, std::size_t first, std::size_t last) {
    benchmark::RegisterBenchmark("ours/" + name, ours, first, last);
    benchmark::RegisterBenchmark("boost/" + name, boost_url, first, last);
}

} // namespace

int main(int argc, char** argv) {
    // Defaults first, so that the command line can change them.
    std::string program = argv[0];
    std::vector<std::string> defaults{"--benchmark_repetitions=9",
                                      "--benchmark_enable_random_interleaving=true",
                                      "--benchmark_min_time=0.1s", "--benchmark_report_aggregates_only=true"};
    std::vector<char*> arguments{program.data()};
    for (std::string& argument : defaults) {
        arguments.push_back(argument.data());
    }
    arguments.insert(arguments.end(), argv + 1, argv + argc);
    int count = static_cast<int>(arguments.size());
    benchmark::Initialize(&count, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) {
        return 2;
    }

    for (const std::string& text : texts) {
        const auto boost_parsed = boost::urls::parse_uri(text);
        const webio::url_parts parts = webio::parse_url(text);
        std::string boost_host;
        if (boost_parsed) {
            boost_host = boost_parsed->host_type() == boost::urls::host_type::ipv6
                             ? std::string(boost_parsed->host_ipv6_address().to_string())
                             : std::string(boost_parsed->encoded_host());
        }
        if (!boost_parsed || parts.host != boost_host) {
            std::fprintf(stderr, "the two parsers do not agree on %s\n", text.c_str());
            return 1;
        }
    }

    for (std::size_t index = 0; index < texts.size(); ++index) {
        add_pair("text_" + std::to_string(index), index, index + 1);
    }
    add_pair("all_texts", 0, texts.size());

    median_reporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);

    for (std::size_t index = 0; index < texts.size(); ++index) {
        const std::string name = "text_" + std::to_string(index);
        std::printf("%5.2f  %s\n", reporter.median("ours/" + name) / reporter.median("boost/" + name),
                    texts[index].c_str());
    }
    const double ipv6 = reporter.median("ours/text_5") / reporter.median("boost/text_5");
    std::printf("url_parse: IPv6 text %.3f, to reach: at most 1.000: %s\n", ipv6,
                ipv6 <= 1.0 ? "reached" : "missed");
    const double ratio = reporter.median("ours/all_texts") / reporter.median("boost/all_texts");
    std::printf("url_parse: time over Boost.URL's %.3f, to reach: at most 0.550: %s\n", ratio,
                ratio <= 0.55 ? "reached" : "missed");
    return 0;
}
