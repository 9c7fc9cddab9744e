// A small web server on the loopback address, for the update server's names. It answers as it is set, misbehaviour included, and
// remembers what it was asked.
//
// One thread a connection. Any thread may set answers and read targets. Stopping it ends all its connections.
#pragma once

#include <winsock2.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace proof {

// Reports go to an address of their own, beside that of the updates.
inline constexpr char report_address[] = "127.0.0.2";

// INVALID_SOCKET when somebody has the port. Shared with nobody. Throws std::runtime_error when there are no sockets at all.
SOCKET listen_on(const char* address, unsigned short port);

// Whether nobody listens on this port of the loopback address, or of all addresses.
bool can_listen(unsigned short port);

// Adds what has come meanwhile, and waits for it. False at the end of the connection.
bool receive_more(SOCKET from, std::string& into);

// Takes connections and says nothing. Throws std::runtime_error when the port cannot be had.
class silent_server {
public:
    silent_server(const char* address, unsigned short port);
    silent_server(const silent_server&) = delete;
    silent_server& operator=(const silent_server&) = delete;
    ~silent_server();

private:
    SOCKET m_listener;
};

struct answer {
    std::string status = "200 OK";
    std::string headers; // each line with its line end
    std::string body;
    std::size_t sent = std::string::npos; // bytes of the body that are sent before the connection is cut
    std::uint64_t repeated =
        0;                  // the body is sent again and again up to so many bytes, and none are announced
    unsigned int wait = 0;  // milliseconds before it is sent
    unsigned int stall = 0; // milliseconds between the last byte and the end
};

class web_server {
public:
    // Throws std::runtime_error when the port cannot be had.
    explicit web_server(unsigned short port);
    web_server(const web_server&) = delete;
    web_server& operator=(const web_server&) = delete;
    ~web_server();

    void set(const std::string& path, answer what);
    // Every description of a channel, with whatever name this Windows has in it.
    void set_description(std::string content, std::string signature);
    void reset();
    // Requires these credentials ("user:password") as a proxy does. Empty: none are asked for.
    void ask_for(const std::string& credentials);

    std::vector<std::string> targets() const;
    // What was sent in chunks and came to its end, without its framing.
    std::vector<std::vector<std::byte>> bodies() const;
    std::uint64_t sent() const;

private:
    void accept_connections();
    void serve(SOCKET connection);
    bool take_body(SOCKET connection, std::string& pending);
    bool answer_one(SOCKET connection, std::string& pending);
    answer find(const std::string& target) const;
    bool send_all(SOCKET connection, const char* data, std::size_t length);

    SOCKET m_listener = INVALID_SOCKET;
    mutable std::mutex m_lock;
    std::map<std::string, answer> m_answers;
    answer m_description;
    answer m_description_signature;
    std::string m_credentials;
    std::vector<std::string> m_targets;
    std::vector<std::vector<std::byte>> m_bodies;
    std::vector<SOCKET> m_open;
    std::uint64_t m_sent = 0;
    bool m_stopping = false;
    std::vector<std::thread> m_threads;
    std::thread m_acceptor;
};

} // namespace proof
