// agreement.exe CASES OUTCOMES: what the program's own run does with each of many descriptions and signature files, for comparison with the
// judge of publications. Everything but the network and the system around it is the product.
//
// CASES holds for each case the signature file and the description, each behind its length (32 bits, little-endian). OUTCOMES gets a line
// for each: "refused" with the message of the event, "nothing", or "installs" with host, port and path of the first request for the package,
// tabs between.
#include "tests/support/fake_winhttp.h"
#include "tests/updater/fakes.h"
#include "updater/run.h"

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

namespace {

using support::fake_winhttp;

const auto event_source = reinterpret_cast<HANDLE>(0xE7E27);

std::string narrow(const std::wstring& text) {
    std::string result(text.size() * 4, '\0');
    const int length =
        ::WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), result.data(),
                              static_cast<int>(result.size()), nullptr, nullptr);
    result.resize(static_cast<std::size_t>(length));
    return result;
}

std::string take(const std::string& cases, std::size_t& at) {
    std::uint32_t length = 0;
    std::memcpy(&length, cases.data() + at, sizeof length);
    at += sizeof length;
    if (length > cases.size() - at) {
        throw std::runtime_error("a case is cut off");
    }
    at += length;
    return cases.substr(at - length, length);
}

std::string outcome_of(const std::string& signature, const std::string& content) {
    fakes::events events;
    fake_winhttp http{fake_winhttp::delivery::calling_thread};
    http.replies.push_back(fake_winhttp::answer(signature));
    http.replies.push_back(fake_winhttp::answer(content));
    corvo::updater::run(event_source);
    if (http.requests.size() > 2) {
        const auto& asked = http.requests.back();
        const auto& server = http.connections.back();
        return "installs\t" + narrow(server.host) + "\t" + std::to_string(server.port) + "\t" +
               narrow(asked.path);
    }
    return events.written.empty() ? "nothing" : "refused\t" + narrow(events.written.at(0).strings.at(1));
}

} // namespace

int main(int count, char** arguments) {
    if (count != 3) {
        std::fputs("usage: agreement CASES OUTCOMES\n", stderr);
        return 2;
    }
    try {
        std::ifstream file(arguments[1], std::ios::binary);
        const std::string cases((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
        std::ofstream outcomes(arguments[2], std::ios::binary);
        const fakes::com com;
        fakes::network network;
        network.creation = E_FAIL; // an unknown network may be used
        fakes::channel_key key;
        const fakes::command_line line{L"lumaris.exe"};
        const fakes::temporary_folder folder;
        for (std::size_t at = 0; at + sizeof(std::uint32_t) <= cases.size();) {
            const std::string signature = take(cases, at);
            const std::string content = take(cases, at);
            outcomes << outcome_of(signature, content) << '\n';
        }
        outcomes.flush();
        return outcomes ? 0 : 1;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "agreement: %s\n", error.what());
        return 1;
    }
}
