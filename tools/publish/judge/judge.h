// What the program makes of published files, decided by the program's own sources.
//
// A judge knows one trusted key, as the program does. Each question names files on this machine, in the place of what a server would
// send; the answers are those of a client that asks for the first time. Messages are, letter by letter, what the client would write into
// the event log. One thread at a time. What cannot be read here throws std::system_error: that says nothing about the publication.
#pragma once

#include "http/parser/url_parts.h"
#include "minisign/trusted_key.h"
#include "minisign/verifier.h"
#include "updater/description.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>

// The key of the line that minisign prints. Throws std::invalid_argument when it is none.
corvo::minisign::trusted_key read_key(const std::string& line);

// What becomes of a description.
struct description_verdict {
    enum class outcome { refused, nothing_to_do, installs };

    outcome what = outcome::refused;
    std::string message; // of the event, when it is refused
    corvo::updater::update_description description;
    webio::url_parts url; // of the package's folder, when it installs
};

// What becomes of a package, and how many bytes it has.
struct package_verdict {
    bool accepted = false;
    std::string message; // of the event, when it is not accepted
    std::uint64_t size = 0;
};

class judge {
public:
    explicit judge(const corvo::minisign::trusted_key& key) noexcept : m_key(key) {}

    // What a client of the version `running` makes of a description and its signature.
    [[nodiscard]] description_verdict description(const std::string& content, const std::string& signature,
                                                  std::uint32_t running) const;

    // What a client makes of a package and its signature.
    package_verdict package(const std::string& content, const std::string& signature);

    // Reads a package ahead of the question about it, whose signature may be still in the making. Nothing may change it meanwhile. Of a
    // package that is larger than a client takes the rest is not read.
    void read_ahead(const std::string& content);

private:
    struct read_package {
        std::unique_ptr<corvo::minisign::content_hash> hash;
        std::uint64_t size = 0;
    };

    static read_package read(const std::string& content);

    const corvo::minisign::trusted_key m_key;
    std::map<std::string, read_package> m_ahead;
};
