#include "tools/reports/access.h"

#include "tools/reports/digest.h"

#include <crypt.h>
#include <fstream>
#include <memory>
#include <sodium.h>
#include <stdexcept>
#include <utility>
#include <vector>

namespace corvo::reports {

access::access(const std::string& password_file, std::string user_header)
    : m_user_header(std::move(user_header)), m_key(random_digits()) {
    if (password_file.empty()) {
        return;
    }
    std::ifstream file(password_file);
    if (!file) {
        throw std::runtime_error(password_file + ": the password file cannot be read");
    }
    for (std::string line; std::getline(file, line);) {
        const std::size_t colon = line.find(':');
        if (!line.empty() && line.front() != '#' && colon != std::string::npos && colon > 0) {
            m_hashes[line.substr(0, colon)] = line.substr(colon + 1);
        }
    }
    if (m_hashes.empty()) {
        throw std::runtime_error(password_file + ": there is no user in the password file");
    }
}

std::string access::user_of(std::string_view authorization, const std::string& user) {
    if (!m_user_header.empty() && !user.empty()) {
        return user;
    }
    static constexpr std::string_view scheme = "Basic ";
    if (!authorization.starts_with(scheme) || authorization.size() > 1000) {
        return {};
    }
    authorization.remove_prefix(scheme.size());
    std::string plain(authorization.size(), '\0');
    std::size_t length = 0;
    if (sodium_base642bin(reinterpret_cast<unsigned char*>(plain.data()), plain.size(), authorization.data(),
                          authorization.size(), nullptr, &length, nullptr,
                          sodium_base64_VARIANT_ORIGINAL) != 0) {
        return {};
    }
    plain.resize(length);
    const std::size_t colon = plain.find(':');
    if (colon == std::string::npos) {
        return {};
    }
    const std::string name = plain.substr(0, colon);
    return is_password(name, plain.substr(colon + 1)) ? name : std::string();
}

bool access::is_password(const std::string& name, const std::string& password) {
    const auto known = m_hashes.find(name);
    if (known == m_hashes.end() || password.find('\0') != std::string::npos) {
        return false;
    }
    const std::string digest = short_digest(m_key + name + ':' + password);
    {
        const std::lock_guard lock(m_mutex);
        if (m_accepted.contains(digest)) {
            return true;
        }
    }
    const auto work = std::make_unique<crypt_data>();
    const char* hash = crypt_r(password.c_str(), known->second.c_str(), work.get());
    if (hash == nullptr || known->second.size() < 13 || known->second != hash) {
        return false;
    }
    const std::lock_guard lock(m_mutex);
    m_accepted.insert(digest);
    return true;
}

} // namespace corvo::reports
