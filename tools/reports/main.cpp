// lumaris-reports: takes error reports in and shows them.
#include "tools/report_reader/symbol_store.h"
#include "tools/reports/access.h"
#include "tools/reports/http.h"
#include "tools/reports/intake.h"
#include "tools/reports/keeper.h"
#include "tools/reports/metrics.h"
#include "tools/reports/pages.h"

#include <CLI/CLI.hpp>

#include <charconv>
#include <chrono>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <optional>
#include <sodium.h>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

namespace {

namespace reports = corvo::reports;

constexpr const char* footer =
    R"(examples:
  lumaris-reports serve --database reports.db --symbols symbols --reports 127.0.0.1:8090 --pages 127.0.0.1:8091 --password-file passwords
  lumaris-reports serve --database postgresql://reports@db.example/reports --symbols symbols --pages 127.0.0.1:8091 --user-header X-Remote-User
  lumaris-reports symbols add --symbols symbols build/release/lumaris.exe build/release/lumaris.pdb
  lumaris-reports export --database reports.db --csv >groups.csv

exit codes: 0 done, 1 failed, 2 wrong arguments)";

struct options {
    std::string database = "reports.db";
    std::string symbols = "symbols";
    std::string reports = "127.0.0.1:8090";
    std::string pages;
    std::string password_file;
    std::string user_header;
    std::string client_header;
    std::vector<std::string> proxies{"127.0.0.1", "::1"};
    std::string folder;
    std::string keep_full = "90d";
    std::string keep_short = "0d";
    std::int64_t full_reports = 3;
    bool keep_addresses = false;
    std::size_t threads = 2;
    std::string request_limit = "300s";
    std::vector<std::string> files;
    bool csv = false;
};

class wrong_arguments : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// "127.0.0.1:8090", "[::1]:8090".
reports::endpoint endpoint_of(const std::string& text) {
    const std::size_t colon = text.rfind(':');
    unsigned port = 0;
    if (colon == std::string::npos || colon == 0 ||
        std::from_chars(text.data() + colon + 1, text.data() + text.size(), port).ptr !=
            text.data() + text.size() ||
        port == 0 || port > 65535) {
        throw wrong_arguments(text + ": this is no ADDRESS:PORT");
    }
    std::string address = text.substr(0, colon);
    if (address.front() == '[' && address.back() == ']') {
        address = address.substr(1, address.size() - 2);
    }
    return {address, static_cast<std::uint16_t>(port)};
}

// "90d" with the unit 'd'. Nothing if it is anything else, or less than `least` or more than `most`.
std::optional<std::int64_t> count_of(const std::string& text, char unit, std::int64_t least,
                                     std::int64_t most) {
    std::int64_t count = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, count);
    const bool is_one =
        error == std::errc() && rest + 1 == end && *rest == unit && count >= least && count <= most;
    return is_one ? std::optional(count) : std::nullopt;
}

// "90d"; 0 is for ever.
std::int64_t days_of(const std::string& text) {
    const auto days = count_of(text, 'd', 0, 36500);
    if (!days) {
        throw wrong_arguments(text + ": this is not a number of days such as 90d");
    }
    return *days;
}

// "300s".
std::chrono::seconds seconds_of(const std::string& text) {
    const auto seconds = count_of(text, 's', 1, 86400);
    if (!seconds) {
        throw wrong_arguments(text + ": this is not a number of seconds from 1s to 86400s");
    }
    return std::chrono::seconds(*seconds);
}

int serve(const options& wanted) {
    const bool has_pages = !wanted.pages.empty();
    if (has_pages && wanted.password_file.empty() && wanted.user_header.empty()) {
        throw wrong_arguments(
            "the pages need --password-file or --user-header: reports hold what lay in people's memory");
    }
    reports::http_settings http{endpoint_of(wanted.reports),
                                has_pages ? endpoint_of(wanted.pages) : reports::endpoint(),
                                wanted.folder.empty()
                                    ? (std::filesystem::temp_directory_path() / "lumaris-reports").string()
                                    : wanted.folder,
                                wanted.client_header,
                                {wanted.proxies.begin(), wanted.proxies.end()},
                                wanted.threads};
    http.request_limit = seconds_of(wanted.request_limit);
    const reports::page_settings shown{wanted.database,           {wanted.symbols},
                                       days_of(wanted.keep_full), days_of(wanted.keep_short),
                                       wanted.full_reports,       wanted.keep_addresses};
    reports::metrics counted;
    reports::intake_settings taken_settings;
    taken_settings.database = wanted.database;
    taken_settings.symbols = {wanted.symbols};
    taken_settings.full_reports_wanted = wanted.full_reports;
    taken_settings.keep_addresses = wanted.keep_addresses;
    reports::intake taken(taken_settings, counted);
    std::optional<reports::access> allowed;
    std::optional<reports::pages> pages;
    if (has_pages) {
        allowed.emplace(wanted.password_file, wanted.user_header);
        pages.emplace(shown);
    }
    const reports::keeper keeper(
        {wanted.database, wanted.symbols, shown.keep_full_days, shown.keep_short_days}, [&] {
            taken.regroup();
            if (pages) {
                pages->forget_symbols();
            }
        });
    reports::serve(http, taken, pages ? &*pages : nullptr, allowed ? &*allowed : nullptr, counted, [&] {
        std::printf("lumaris-reports: takes reports on %s%s%s\n", wanted.reports.c_str(),
                    has_pages ? ", shows pages on " : "", wanted.pages.c_str());
        std::fflush(stdout);
    });
    return 0;
}

int add_symbols(const options& wanted) {
    for (const std::string& file : wanted.files) {
        std::printf("%s\n", corvo::report_reader::add_to_store(wanted.symbols, file).c_str());
    }
    return 0;
}

int write_export(const options& wanted) {
    reports::pages pages({wanted.database, {}});
    const std::string text = pages.answer({"GET", wanted.csv ? "/export.csv" : "/export.json", {}}).body;
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() || std::fflush(stdout) != 0) {
        throw std::runtime_error("standard output cannot be written");
    }
    return 0;
}

} // namespace

int main(int count, char** arguments) {
    options wanted;
    CLI::App parser("Takes the error reports of Halvoro's updater in, groups them by the crash, and shows "
                    "them with functions and lines.",
                    "lumaris-reports");
    parser.footer(footer);
    parser.require_subcommand(1);
    const auto take_database = [&wanted](CLI::App* word) {
        word->add_option("--database", wanted.database,
                         "a file of SQLite, made when it is missing, or postgresql://...")
            ->capture_default_str();
    };
    const auto take_symbols = [&wanted](CLI::App* word) {
        word->add_option("--symbols", wanted.symbols, "the folder of the symbol store")
            ->capture_default_str();
    };
    CLI::App* const serving =
        parser.add_subcommand("serve", "takes reports and shows pages until it gets SIGTERM");
    take_database(serving);
    take_symbols(serving);
    serving->add_option("--reports", wanted.reports, "ADDRESS:PORT on which reports come in")
        ->capture_default_str();
    serving->add_option("--pages", wanted.pages, "ADDRESS:PORT of the pages; without it there are none");
    serving->add_option("--password-file", wanted.password_file,
                        "who may see the pages: a file as htpasswd -B writes it");
    serving->add_option("--user-header", wanted.user_header,
                        "the header in which a reverse proxy names the user it let in");
    serving->add_option(
        "--client-header", wanted.client_header,
        "the header in which a reverse proxy names the client's address, such as X-Forwarded-For");
    serving
        ->add_option(
            "--proxy", wanted.proxies,
            "the address of a reverse proxy; what such headers say counts from these addresses alone")
        ->capture_default_str();
    serving->add_option("--folder", wanted.folder,
                        "for large bodies while they come in (default: a folder below the temporary one)");
    serving
        ->add_option("--keep-full", wanted.keep_full,
                     "how long full reports stay, which hold stack memory; 0d is for ever")
        ->capture_default_str();
    serving->add_option("--keep-short", wanted.keep_short, "how long short reports stay; 0d is for ever")
        ->capture_default_str();
    serving
        ->add_option("--full-reports", wanted.full_reports,
                     "how many full reports of each group are asked for")
        ->capture_default_str()
        ->check(CLI::Range(0, 1000));
    serving->add_flag("--keep-addresses", wanted.keep_addresses,
                      "keeps the clients' addresses and not a salted digest of them");
    serving->add_option("--threads", wanted.threads, "threads that serve connections")
        ->capture_default_str()
        ->check(CLI::Range(1, 64));
    serving
        ->add_option("--request-limit", wanted.request_limit,
                     "how long a request may take to come in whole; after that its connection is closed")
        ->capture_default_str();
    CLI::App* const symbols = parser.add_subcommand("symbols", "the symbol store");
    symbols->require_subcommand(1);
    CLI::App* const adding = symbols->add_subcommand(
        "add", "puts programs and PDBs into the store; a running server notices them");
    take_symbols(adding);
    adding->add_option("FILE", wanted.files, "programs and PDBs")->required();
    CLI::App* const exporting = parser.add_subcommand("export", "prints all groups as JSON, or as CSV");
    take_database(exporting);
    exporting->add_flag("--csv", wanted.csv, "as CSV");
    try {
        parser.parse(count, arguments);
    } catch (const CLI::ParseError& error) {
        return parser.exit(error) == 0 ? 0 : 2;
    }
    try {
        if (sodium_init() < 0) {
            throw std::runtime_error("the system gives no random numbers");
        }
        return serving->parsed()  ? serve(wanted)
               : adding->parsed() ? add_symbols(wanted)
                                  : write_export(wanted);
    } catch (const wrong_arguments& error) {
        std::fprintf(stderr, "lumaris-reports: %s\n", error.what());
        return 2;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "lumaris-reports: %s\n", error.what());
        return 1;
    }
}
