// Fuzzes what the report server does with a delivery: the input as a body, and as an inflated report.
//
// What holds for every input: it is answered exactly once, in text/plain with one of the statuses that the program knows, and a
// report is asked for in full, or thanked for, only when it is one. Text of any bytes never becomes markup on a page.
#include "tools/report_reader/inflate.h"
#include "tools/report_reader/report.h"
#include "tools/reports/html.h"
#include "tools/reports/intake.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <future>
#include <memory>
#include <sodium.h>
#include <span>
#include <string>
#include <zlib.h>

namespace {

using namespace corvo::reports;
namespace reader = corvo::report_reader;

constexpr int most_in_one_database = 2000;

void require(bool condition) {
    if (!condition) {
        std::abort();
    }
}

bool is_report(const std::string& body) {
    try {
        reader::parse_report(reader::inflate(std::as_bytes(std::span(body.data(), body.size())),
                                             intake_settings().largest_report));
        return true;
    } catch (const reader::damage&) {
        return false;
    }
}

void deliver(intake& taken, const std::string& body) {
    std::promise<answer> answered; // setting it twice would throw, and end this
    taken.deliver({body, "192.0.2.1", "sl"}, [&answered](const answer& given) { answered.set_value(given); });
    const answer given = answered.get_future().get();
    require(given.is_plain && !given.text.empty());
    require(is_report(body) ? given.status == 200 || given.status == 449 : given.status == 400);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const int ready = sodium_init();
    static metrics counted;
    static std::unique_ptr<intake> taken;
    static int count = 0;
    require(ready >= 0);
    if (taken == nullptr || ++count % most_in_one_database == 0) {
        taken.reset();
        intake_settings settings;
        settings.database = ":memory:";
        taken = std::make_unique<intake>(settings, counted);
    }
    const std::string plain(reinterpret_cast<const char*>(data), size);
    deliver(*taken, plain);
    std::string packed(compressBound(size), '\0');
    uLongf length = packed.size();
    require(compress2(reinterpret_cast<Bytef*>(packed.data()), &length, data, size, 1) == Z_OK);
    packed.resize(length);
    deliver(*taken, packed);
    require(escaped(plain).find_first_of("<>\"'\x1B") == std::string::npos);
    return 0;
}
