#include "tools/report_reader/print.h"

#include "tools/report_reader/names.h"

#include <nlohmann/json.hpp>

#include <utility>

namespace corvo::report_reader {

namespace {

// Keeps the order in which the keys are written, which is that of the report.
using json = nlohmann::ordered_json;

json record_json(const exception_record& record) {
    return {{"code", record.code},
            {"flags", record.flags},
            {"address", record.address},
            {"parameters", record.parameters}};
}

json vector_registers_json(const std::array<vector_register, 32>& registers) {
    json result = json::array();
    for (const vector_register& value : registers) {
        result.push_back({{"low", value.low}, {"high", value.high}});
    }
    return result;
}

json context_json(const processor_context& context) {
    json result{{"flags", context.flags},
                {"integer", nullptr},
                {"control", nullptr},
                {"floating_point", nullptr},
                {"debug", nullptr}};
    if (context.integer) {
        result["integer"] = {
            {"x", context.integer->x}, {"fp", context.integer->fp}, {"lr", context.integer->lr}};
    }
    if (context.control) {
        const control_registers& control = *context.control;
        result["control"] = {{"fp", control.fp},
                             {"lr", control.lr},
                             {"sp", control.sp},
                             {"pc", control.pc},
                             {"cpsr", control.cpsr}};
    }
    if (context.floating_point) {
        result["floating_point"] = {{"v", vector_registers_json(context.floating_point->v)},
                                    {"fpcr", context.floating_point->fpcr},
                                    {"fpsr", context.floating_point->fpsr}};
    }
    if (context.debug) {
        const debug_registers& debug = *context.debug;
        result["debug"] = {{"bcr", debug.bcr}, {"bvr", debug.bvr}, {"wcr", debug.wcr}, {"wvr", debug.wvr}};
    }
    return result;
}

std::string digits_of(const std::vector<std::byte>& bytes) {
    static constexpr std::string_view digits = "0123456789abcdef";
    std::string text;
    text.reserve(bytes.size() * 2);
    for (const std::byte byte : bytes) {
        text += digits[std::to_integer<unsigned>(byte) >> 4];
        text += digits[std::to_integer<unsigned>(byte) & 0xF];
    }
    return text;
}

json frame_json(const frame& shown, const module_block& module, const code_chain& places) {
    json result{{"module", to_utf8(module.name)},
                {"time_stamp", module.time_stamp},
                {"checksum", nullptr},
                {"base", nullptr},
                {"offset", shown.offset},
                {"stack", nullptr}};
    if (module.checksum) {
        result["checksum"] = *module.checksum;
    }
    if (module.base) {
        result["base"] = *module.base;
    }
    if (shown.stack) {
        result["stack"] = {{"address", shown.stack->address}, {"bytes", digits_of(shown.stack->bytes)}};
    }
    if (!places.empty()) {
        result["function_offset"] = places.back().function_offset;
        result["functions"] = json::array();
    }
    for (const code_place& place : places) {
        json function{{"name", place.function}, {"source", nullptr}};
        if (!place.source.empty()) {
            function["source"] = place.source;
        }
        result["functions"].push_back(std::move(function));
    }
    return result;
}

} // namespace

std::string to_json(const std::string& file, const report& what, const frame_places& places) {
    json result{{"file", file},
                {"kind", what.kind == report_kind::brief ? "short" : "full"},
                {"machine", what.machine == machine_type::arm64 ? "arm64" : "x86-64"},
                {"records", json::array()},
                {"context", nullptr},
                {"notes", nullptr},
                {"frames", json::array()}};
    for (const exception_record& record : what.records) {
        result["records"].push_back(record_json(record));
    }
    if (what.context) {
        result["context"] = context_json(*what.context);
    }
    if (what.notes) {
        result["notes"] = json::array();
        for (const std::u16string& note : *what.notes) {
            result["notes"].push_back(to_utf8(note));
        }
    }
    for (std::size_t index = 0; index < what.frames.size(); ++index) {
        const frame& shown = what.frames[index];
        result["frames"].push_back(frame_json(shown, what.modules[shown.module], places[index]));
    }
    // A file's name may be any bytes; what is not UTF-8 is replaced rather than refused.
    return result.dump(-1, ' ', false, json::error_handler_t::replace);
}

} // namespace corvo::report_reader
