// Who may see the pages: by a password file, or by a header in which a reverse proxy names the user.
//
// Any thread.
#pragma once

#include <map>
#include <mutex>
#include <set>
#include <string>
#include <string_view>

namespace corvo::reports {

class access {
public:
    // Lines NAME:HASH as `htpasswd -B` writes them, or any other hash that crypt(5) knows. Throws std::runtime_error that names the
    // file when it cannot be read or holds no user. An empty path means no password file; an empty header means no proxy.
    access(const std::string& password_file, std::string user_header);

    const std::string& user_header() const noexcept { return m_user_header; }

    // The user's name, or empty. `authorization` is that header's value (RFC 7617, Basic); `user` is what the proxy said.
    std::string user_of(std::string_view authorization, const std::string& user);

private:
    bool is_password(const std::string& name, const std::string& password);

    std::map<std::string, std::string> m_hashes;
    std::string m_user_header;
    std::string m_key; // of the digests below; random
    std::mutex m_mutex;
    std::set<std::string> m_accepted; // digests of what was right; the hashes are slow on purpose
};

} // namespace corvo::reports
