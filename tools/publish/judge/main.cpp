// lumaris_judge PUBLIC-KEY: reads questions from the standard input, a line each with its parts between tabs, and answers each with a
// line of JSON:
//
//     description CONTENT SIGNATURE RUNNING   what a client of the version RUNNING (hexadecimal) does with a description
//     package CONTENT SIGNATURE               whether a client takes a package
//     ahead CONTENT                           reads a package ahead of the question about it
//     address URL                             what a client makes of the address of a package's folder
//     limit                                   how many bytes of a package a client takes
//
// CONTENT and SIGNATURE are names of files. Texts out of them are written byte by byte, as the characters U+0000 to U+00FF. Exit code 0
// after the last question, 2 for a key or a question that cannot be understood.
#include "tools/publish/judge/judge.h"
#include "updater/build_config.h"

#include <nlohmann/json.hpp>

#include <cstdio>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using nlohmann::json;

std::string characters(const std::string& bytes) {
    std::string text;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x80) {
            text += c;
        } else {
            text += static_cast<char>(0xc0 | byte >> 6);
            text += static_cast<char>(0x80 | (byte & 0x3f));
        }
    }
    return text;
}

json show(const webio::url_parts& url) {
    static constexpr const char* schemes[] = {"", "http", "https", "ws", "wss"};
    return {{"scheme", schemes[static_cast<unsigned int>(url.scheme)]},
            {"host", characters(url.host)},
            {"port", url.port},
            {"user", characters(url.user_name)},
            {"password", characters(url.password)},
            {"path", characters(url.path)}};
}

json answer(judge& clients, const std::vector<std::string>& question) {
    if (question.size() == 4 && question[0] == "description") {
        const auto running = static_cast<std::uint32_t>(std::stoul(question[3], nullptr, 16));
        const description_verdict verdict = clients.description(question[1], question[2], running);
        if (verdict.what == description_verdict::outcome::refused) {
            return {{"verdict", "refused"}, {"message", characters(verdict.message)}};
        }
        json result = {{"verdict", "nothing"},
                       {"version", verdict.description.version},
                       {"label", characters(verdict.description.label)},
                       {"address", characters(verdict.description.package_url)}};
        if (verdict.what == description_verdict::outcome::installs) {
            result["verdict"] = "installs";
            result["url"] = show(verdict.url);
        }
        return result;
    }
    if (question.size() == 3 && question[0] == "package") {
        const package_verdict verdict = clients.package(question[1], question[2]);
        return verdict.accepted ? json{{"verdict", "accepted"}, {"size", verdict.size}}
                                : json{{"verdict", "refused"}, {"message", characters(verdict.message)}};
    }
    if (question.size() == 2 && question[0] == "ahead") {
        clients.read_ahead(question[1]);
        return {{"verdict", "read"}};
    }
    if (question.size() == 1 && question[0] == "limit") {
        return {{"verdict", "limit"}, {"size", corvo::build_config::package_limit}};
    }
    if (question.size() == 2 && question[0] == "address") {
        try {
            return {{"verdict", "understood"}, {"url", show(webio::parse_url(question[1]))}};
        } catch (const std::exception& error) {
            return {{"verdict", "refused"}, {"message", characters(error.what())}};
        }
    }
    throw std::invalid_argument("no question: " + (question.empty() ? std::string() : question[0]));
}

std::vector<std::string> split(const std::string& line) {
    std::vector<std::string> parts;
    std::size_t start = 0;
    for (std::size_t end = 0; (end = line.find('\t', start)) != std::string::npos; start = end + 1) {
        parts.push_back(line.substr(start, end - start));
    }
    parts.push_back(line.substr(start));
    return parts;
}

} // namespace

int main(int count, char** arguments) {
    try {
        if (count != 2) {
            throw std::invalid_argument("usage: lumaris_judge PUBLIC-KEY <questions");
        }
        judge clients(read_key(arguments[1]));
        for (std::string line; std::getline(std::cin, line);) {
            json result;
            try {
                result = answer(clients, split(line));
            } catch (const std::system_error& error) {
                result = {{"verdict", "unreadable"}, {"message", characters(error.what())}};
            }
            std::cout << result.dump() << '\n' << std::flush;
        }
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "lumaris_judge: %s\n", error.what());
        return 2;
    }
}
