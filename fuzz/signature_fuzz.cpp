// Fuzzes the reading of a Minisign signature file and its base64 decoder.
//
// What holds for every file: the decoder yields what a naive one yields, however its input is split; what is
// read, or why it is refused, is what a naive reader says that sees the whole file at once; and nothing
// behind the signature line changes it.
#include "minisign/base64.h"
#include "minisign/signature.h"
#include "stream/memory_file.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace {

void require(bool condition) {
    if (!condition) {
        std::abort();
    }
}

// In arithmetic rather than bits, over a list of all values. Padding counts 64.
std::string naive_base64(std::string_view text) {
    static constexpr std::string_view alphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/=";
    std::vector<unsigned int> values;
    for (const char c : text) {
        if (const auto value = alphabet.find(c); value != std::string_view::npos) {
            values.push_back(static_cast<unsigned int>(value));
        }
    }
    std::string bytes;
    const auto emit = [&bytes](unsigned int high, unsigned int low) {
        bytes += static_cast<char>((high % 256) | (low % 256));
    };
    for (std::size_t i = 0; i + 4 <= values.size(); i += 4) {
        emit(values[i] * 4, values[i + 1] / 16);
        if (values[i + 2] == 64) {
            break;
        }
        emit(values[i + 1] * 16, values[i + 2] / 4);
        if (values[i + 3] == 64) {
            break;
        }
        emit(values[i + 2] * 64, values[i + 3]);
    }
    return bytes;
}

struct outcome {
    std::string failure; // empty: read
    char algorithm = 0;
    std::uint64_t id = 0;
    std::string bytes;
    std::size_t line_end = 0; // behind the line feed of the signature line; 0 if there is none

    friend bool operator==(const outcome& left, const outcome& right) {
        return left.failure == right.failure && left.algorithm == right.algorithm && left.id == right.id &&
               left.bytes == right.bytes;
    }
};

outcome naive_read(const std::string& text) {
    outcome result;
    std::string decoded;
    for (std::size_t start = 0, end = 0; (end = text.find('\n', start)) != std::string::npos;
         start = end + 1) {
        std::string line = text.substr(start, end - start);
        if (!line.empty() && line[line.size() - 1] == '\r') {
            line.resize(line.size() - 1);
        }
        if (!line.empty() && !line.starts_with("untrusted comment:")) {
            decoded = naive_base64(line);
            result.line_end = end + 1;
            break;
        }
    }
    if (decoded.size() < 74) {
        result.failure = "Minisign signature is too short";
    } else if (decoded[0] != 'E') {
        result.failure = "not a Minisign signature";
    } else {
        result.algorithm = decoded[1];
        for (std::size_t i = 9; i >= 2; --i) {
            result.id = result.id * 256 + static_cast<unsigned char>(decoded[i]);
        }
        result.bytes = decoded.substr(10, 64);
    }
    return result;
}

outcome read(const std::string& text) {
    corvo::stream::memory_file file;
    file.write(text.data(), text.size());
    file.seek(0, corvo::stream::seek_beg);
    outcome result;
    try {
        const auto made = corvo::minisign::read_signature(file);
        result.algorithm = made.algorithm;
        result.id = made.id;
        result.bytes.assign(made.bytes.begin(), made.bytes.end());
    } catch (const std::runtime_error& error) {
        result.failure = error.what();
    }
    return result;
}

void check_base64(const std::string& text, std::size_t split) {
    const std::string expected = naive_base64(text);
    std::string whole;
    corvo::minisign::base64_decoder().decode(text, whole);
    require(whole == expected);

    split %= text.size() + 1;
    std::string halves = "kept";
    corvo::minisign::base64_decoder decoder;
    decoder.decode(std::string_view(text).substr(0, split), halves);
    decoder.decode(std::string_view(text).substr(split), halves);
    require(halves == "kept" + expected);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    check_base64(text, size == 0 ? 0 : data[size / 2]);

    const outcome expected = naive_read(text);
    require(read(text) == expected);
    if (expected.line_end != 0) {
        require(read(text.substr(0, expected.line_end)) == expected);
        require(read(text + "trusted comment: x\n") == expected);
    }
    return 0;
}
