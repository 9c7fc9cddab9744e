// read_report: shows error reports, and checks them to the last byte.
#include "tools/report_reader/chunk_framing.h"
#include "tools/report_reader/inflate.h"
#include "tools/report_reader/names.h"
#include "tools/report_reader/print.h"
#include "tools/report_reader/report.h"
#include "tools/report_reader/symbol_store.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

namespace {

namespace reader = corvo::report_reader;

constexpr int status_damaged = 1;
constexpr int status_usage = 2;

constexpr const char* footer =
    R"(A FILE is a report as the program saves it (0.tzo: short, 0.tzr: full) or uploads it: the same bytes. - is standard input.
An upload body that was kept with its HTTP chunk framing is refused, unless --body is given.

Symbols are programs with their PDBs: a symbol store (NAME/TIME STAMP AND SIZE/NAME for programs, NAME/GUID AND AGE/NAME for
PDBs), or a folder in which they lie beside each other. What does not fit the report is refused.

exit codes: 0 all reports are whole, 1 a report is damaged, 2 wrong arguments, a file that cannot be read, or symbols that do not
fit the report

examples:
  read_report 0.tzr --symbols build/release/symbols
  read_report --json 0.tzo | python3 -m json.tool
  read_report --body captured.bin)";

struct options {
    std::vector<std::string> files;
    std::vector<std::string> symbols;
    bool json = false;
    bool body = false;
};

// A file that cannot be read at all; that is not damage to a report.
class unreadable : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct close_file {
    void operator()(std::FILE* file) const noexcept {
        if (file != stdin) {
            std::fclose(file);
        }
    }
};

std::vector<std::byte> read_file(const std::string& path) {
    const std::unique_ptr<std::FILE, close_file> file(path == "-" ? stdin : std::fopen(path.c_str(), "rb"));
    if (file == nullptr) {
        throw unreadable(std::generic_category().message(errno));
    }
    std::vector<std::byte> bytes;
    std::array<std::byte, 65536> piece{};
    while (const std::size_t length = std::fread(piece.data(), 1, piece.size(), file.get())) {
        // Compression adds hardly anything, so what is larger than a report may become is none.
        if (length > reader::inflate_limit - bytes.size()) {
            throw reader::damage(reader::damaged_bytes::file, bytes.size(),
                                 "larger than " + std::to_string(reader::inflate_limit) + " bytes");
        }
        bytes.insert(bytes.end(), piece.begin(), piece.begin() + static_cast<std::ptrdiff_t>(length));
    }
    if (std::ferror(file.get()) != 0) {
        throw unreadable(std::generic_category().message(errno));
    }
    return bytes;
}

reader::report read_report(const std::string& path, bool body) {
    std::vector<std::byte> bytes = read_file(path);
    if (!reader::has_chunk_framing(bytes)) {
        return reader::parse_report(reader::inflate(bytes));
    }
    if (!body) {
        throw reader::damage(reader::damaged_bytes::file, 0,
                             "this is an upload body with its HTTP chunk framing; --body takes that off");
    }
    bytes = reader::remove_chunk_framing(bytes);
    return reader::parse_report(reader::inflate(bytes, reader::inflate_limit, reader::damaged_bytes::body));
}

void complain(const std::string& about, const std::string& text) {
    std::fflush(stdout);
    std::fprintf(stderr, "read_report: %s: %s\n", about.c_str(), text.c_str());
}

void print(const std::string& text) {
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size()) {
        throw std::system_error(errno, std::generic_category(), "standard output");
    }
}

// Shows one report and returns its exit code.
int show(const std::string& path, const options& wanted, reader::symbol_store& symbols) {
    const std::string name = path == "-" ? "standard input" : path;
    try {
        const reader::report report = read_report(path, wanted.body);
        const reader::frame_places places = symbols.find(report);
        if (wanted.json) {
            print(reader::to_json(path, report, places) + "\n");
        } else {
            print(reader::printable(name) + ": " + reader::to_text(report, places));
        }
        const std::vector<std::string> refusals = symbols.take_refusals();
        for (const std::string& refusal : refusals) {
            std::fflush(stdout);
            std::fprintf(stderr, "read_report: %s\n", reader::printable(refusal).c_str());
        }
        return refusals.empty() ? 0 : status_usage;
    } catch (const reader::damage& error) {
        complain(name, error.what());
        return status_damaged;
    } catch (const unreadable& error) {
        complain(name, error.what());
        return status_usage;
    }
}

int run(const options& wanted) {
    for (const std::string& folder : wanted.symbols) {
        if (!std::filesystem::is_directory(folder)) {
            throw unreadable(folder + ": this is not a folder");
        }
    }
    reader::symbol_store symbols({wanted.symbols.begin(), wanted.symbols.end()});
    int status = 0;
    for (const std::string& path : wanted.files) {
        status = std::max(status, show(path, wanted, symbols));
    }
    if (std::fflush(stdout) != 0) {
        throw std::system_error(errno, std::generic_category(), "standard output");
    }
    return status;
}

} // namespace

int main(int count, char** arguments) {
    options wanted;
    CLI::App parser("Shows error reports of Halvoro's updater, and checks them to the last byte.",
                    "read_report");
    parser.footer(footer);
    parser.add_option("FILE", wanted.files, "reports to show")->required();
    parser.add_flag("--json", wanted.json,
                    "one JSON object a line, one line a report, with everything that is in it");
    parser
        .add_option(
            "--symbols", wanted.symbols,
            "names functions and source lines from the programs and PDBs in this folder; may be repeated")
        ->type_name("DIR")
        ->allow_extra_args(false);
    parser.add_flag("--body", wanted.body,
                    "the files are upload bodies: take HTTP chunk framing off, if there is any");
    try {
        parser.parse(count, arguments);
    } catch (const CLI::ParseError& error) {
        return parser.exit(error) == 0 ? 0 : status_usage;
    }
    try {
        return run(wanted);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "read_report: %s\n", error.what());
        return status_usage;
    }
}
