#include "tools/publish/judge/judge.h"

#include "minisign/base64.h"
#include "minisign/signature.h"
#include "platform/exception_message.h"
#include "stream/bounded_memory_file.h"
#include "updater/build_config.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <exception>
#include <memory>
#include <stdexcept>
#include <system_error>
#include <vector>

namespace {

using corvo::minisign::content_hash;
using corvo::stream::bounded_memory_file;

struct close_file {
    void operator()(std::FILE* file) const noexcept { std::fclose(file); }
};

// A file of this machine that cannot be read is a failure of the publisher's and no verdict.
class unreadable : public std::system_error {
public:
    explicit unreadable(const std::string& path) : std::system_error(errno, std::generic_category(), path) {}
};

// Hands the file on in pieces, until it ends or `take` has had enough.
template <class Take> void read_file(const std::string& path, std::vector<char> block, Take take) {
    const std::unique_ptr<std::FILE, close_file> file(std::fopen(path.c_str(), "rb"));
    if (file == nullptr) {
        throw unreadable(path);
    }
    // Pieces are as large as ours anyway.
    std::setvbuf(file.get(), nullptr, _IONBF, 0);
    bool wanted = true;
    while (wanted && std::feof(file.get()) == 0) {
        const std::size_t length = std::fread(block.data(), 1, block.size(), file.get());
        if (std::ferror(file.get()) != 0) {
            throw unreadable(path);
        }
        if (length != 0) {
            wanted = take(block.data(), length);
        }
    }
}

void load(const std::string& path, bounded_memory_file& file) {
    read_file(path, std::vector<char>(8192),
              [&file](const char* data, std::size_t length) { return file.write(data, length) == length; });
    file.seek(0, corvo::stream::seek_beg);
}

corvo::minisign::signature load_signature(const std::string& path) {
    try {
        bounded_memory_file file(corvo::minisign::max_signature_file_size);
        load(path, file);
        return corvo::minisign::read_signature(file);
    } catch (const unreadable&) {
        throw;
    } catch (...) {
        std::throw_with_nested(std::runtime_error("Failed to load Minisign signature"));
    }
}

void load_content(const std::string& path, bounded_memory_file& file) {
    try {
        load(path, file);
    } catch (const unreadable&) {
        throw;
    } catch (...) {
        std::throw_with_nested(std::runtime_error("Failed to load content"));
    }
}

// A client looks first at what it has already. That is nothing here, and nothing can be signed, too.
bool signs_nothing(const corvo::minisign::signature& made, const corvo::minisign::trusted_key& key) {
    return content_hash().verify(made, key);
}

// A client breaks a download off that is longer.
void check_size(std::uint64_t size) {
    if (size <= corvo::build_config::package_limit) {
        return;
    }
    try {
        throw corvo::stream::limit_exceeded("package larger than " +
                                            std::to_string(corvo::build_config::package_limit) + " bytes");
    } catch (...) {
        std::throw_with_nested(std::runtime_error("Failed to load content"));
    }
}

} // namespace

corvo::minisign::trusted_key read_key(const std::string& line) {
    std::string bytes;
    corvo::minisign::base64_decoder().decode(line, bytes);
    constexpr std::size_t id_at = 2;
    constexpr std::size_t key_at = 10;
    corvo::minisign::trusted_key result{};
    if (line.size() != 56 || bytes.size() != key_at + result.key.size() || !bytes.starts_with("Ed")) {
        throw std::invalid_argument("this is no Minisign public key: " + line);
    }
    for (std::size_t i = 0; i < 8; ++i) {
        result.id |= corvo::minisign::key_id{static_cast<unsigned char>(bytes[id_at + i])} << (8 * i);
    }
    std::copy_n(bytes.begin() + key_at, result.key.size(), result.key.begin());
    return result;
}

description_verdict judge::description(const std::string& content, const std::string& signature,
                                       std::uint32_t running) const {
    description_verdict verdict;
    try {
        const corvo::minisign::signature made = load_signature(signature);
        const corvo::minisign::trusted_key& key = corvo::minisign::find_trusted_key(made, &m_key, 1);
        bounded_memory_file text(corvo::updater::max_description_size);
        if (!signs_nothing(made, key)) {
            load_content(content, text);
            content_hash hash;
            hash.update(text.data(), static_cast<std::size_t>(text.size()));
            if (!hash.verify(made, key)) {
                throw std::runtime_error("Invalid Minisign signature");
            }
        }
        verdict.description = corvo::updater::read_description(text);
        verdict.what = description_verdict::outcome::nothing_to_do;
        if (verdict.description.version > running) {
            if (verdict.description.package_url.empty()) {
                throw std::invalid_argument("update URL unavailable");
            }
            verdict.url = webio::parse_url(verdict.description.package_url);
            verdict.what = description_verdict::outcome::installs;
        }
    } catch (const unreadable&) {
        throw;
    } catch (const std::exception& error) {
        verdict.what = description_verdict::outcome::refused;
        verdict.message = corvo::exception_message(error);
    }
    return verdict;
}

judge::read_package judge::read(const std::string& content) {
    read_package result{std::make_unique<content_hash>(), 0};
    read_file(content, std::vector<char>(std::size_t{1} << 20),
              [&result](const char* data, std::size_t length) {
                  result.hash->update(data, length);
                  result.size += length;
                  return result.size <= corvo::build_config::package_limit;
              });
    return result;
}

void judge::read_ahead(const std::string& content) {
    m_ahead.insert_or_assign(content, read(content));
}

package_verdict judge::package(const std::string& content, const std::string& signature) {
    package_verdict verdict;
    try {
        const corvo::minisign::signature made = load_signature(signature);
        const corvo::minisign::trusted_key& key = corvo::minisign::find_trusted_key(made, &m_key, 1);
        if (signs_nothing(made, key)) {
            verdict.accepted = true;
            return verdict;
        }
        const auto ahead = m_ahead.extract(content);
        const read_package known = ahead ? read_package{std::move(ahead.mapped())} : read(content);
        verdict.size = known.size;
        check_size(known.size);
        if (!known.hash->verify(made, key)) {
            throw std::runtime_error("Invalid Minisign signature");
        }
        verdict.accepted = true;
    } catch (const unreadable&) {
        throw;
    } catch (const std::exception& error) {
        verdict.message = corvo::exception_message(error);
    }
    return verdict;
}
