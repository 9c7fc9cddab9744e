// read_report: shows error reports, and checks them to the last byte.
#include "tools/report_reader/chunk_framing.h"
#include "tools/report_reader/inflate.h"
#include "tools/report_reader/names.h"
#include "tools/report_reader/pdb.h"
#include "tools/report_reader/print.h"
#include "tools/report_reader/report.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

namespace {

namespace reader = corvo::report_reader;

constexpr int status_damaged = 1;
constexpr int status_usage = 2;

constexpr const char* footer =
    R"(A FILE is a report as the program saves it (0.tzo: short, 0.tzr: full) or uploads it: the same bytes. - is standard input.
An upload body that was kept with its HTTP chunk framing is refused, unless --body is given.

exit codes: 0 all reports are whole, 1 a report is damaged, 2 wrong arguments or a file that cannot be read

examples:
  read_report 0.tzr --pdb lumaris.pdb
  read_report --json 0.tzo | python3 -m json.tool
  read_report --body captured.bin)";

struct options {
    std::vector<std::string> files;
    std::vector<std::string> pdbs;
    bool json = false;
    bool body = false;
};

struct named_symbols {
    std::string path;
    reader::symbol_table symbols;
    bool used = false;
};

// What cannot be read at all, which is no damage to a report.
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

reader::frame_places find_places(const reader::report& report, std::vector<named_symbols>& pdbs) {
    reader::frame_places places(report.frames.size());
    for (std::size_t index = 0; index < report.frames.size(); ++index) {
        const reader::frame& frame = report.frames[index];
        const std::string module = reader::to_utf8(report.modules[frame.module].name);
        for (named_symbols& pdb : pdbs) {
            if (reader::is_pdb_of(pdb.path, module)) {
                pdb.used = true;
                places[index] = pdb.symbols.find(frame.offset, index > 0);
                break;
            }
        }
    }
    return places;
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
int show(const std::string& path, const options& wanted, std::vector<named_symbols>& pdbs) {
    const std::string name = path == "-" ? "standard input" : path;
    try {
        const reader::report report = read_report(path, wanted.body);
        const reader::frame_places places = find_places(report, pdbs);
        if (wanted.json) {
            print(reader::to_json(path, report, places) + "\n");
        } else {
            print(reader::printable(name) + ": " + reader::to_text(report, places));
        }
        return 0;
    } catch (const reader::damage& error) {
        complain(name, error.what());
        return status_damaged;
    } catch (const unreadable& error) {
        complain(name, error.what());
        return status_usage;
    }
}

int run(const options& wanted) {
    std::vector<named_symbols> pdbs;
    pdbs.reserve(wanted.pdbs.size());
    for (const std::string& path : wanted.pdbs) {
        pdbs.push_back({path, reader::read_pdb(path)});
    }
    int status = 0;
    for (const std::string& path : wanted.files) {
        status = std::max(status, show(path, wanted, pdbs));
    }
    if (std::fflush(stdout) != 0) {
        throw std::system_error(errno, std::generic_category(), "standard output");
    }
    for (const named_symbols& pdb : pdbs) {
        if (!pdb.used) {
            complain(pdb.path, "no frame lies in a module of that name");
        }
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
        .add_option("--pdb", wanted.pdbs,
                    "names the functions of the module that this PDB belongs to; may be repeated")
        ->type_name("FILE.pdb")
        ->allow_extra_args(false);
    parser.add_flag("--body", wanted.body,
                    "the files are upload bodies: take HTTP chunk framing off, where there is any");
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
