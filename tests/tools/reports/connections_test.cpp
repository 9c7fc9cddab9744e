#include "tools/reports/connections.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

using namespace corvo::reports;
using namespace std::chrono_literals;

const request_clocks::clock::time_point begin(1000s);
const connection one{"one", 80};
const connection other{"other", 80};
const std::map<connection, int> both_open{{one, 3}, {other, 4}};

TEST(reports_connections, a_request_is_overdue_after_the_limit_and_is_named_once) {
    request_clocks clocks(10s);
    clocks.open(one, begin);
    clocks.open(other, begin + 1s);
    EXPECT_TRUE(clocks.take_overdue(both_open, begin + 10s, begin + 10s).empty());
    EXPECT_EQ(clocks.take_overdue(both_open, begin + 11s, begin + 11s), std::vector{one});
    EXPECT_EQ(clocks.take_overdue(both_open, begin + 12s, begin + 12s), std::vector{other});
    EXPECT_TRUE(clocks.take_overdue(both_open, begin + 99s, begin + 99s).empty());
}

TEST(reports_connections, the_time_that_an_answer_takes_does_not_count) {
    request_clocks clocks(10s);
    clocks.open(one, begin);
    clocks.arrive(one);
    EXPECT_TRUE(clocks.take_overdue(both_open, begin + 60s, begin + 60s).empty());
    clocks.answer(one, begin + 60s);
    EXPECT_TRUE(clocks.take_overdue(both_open, begin + 70s, begin + 70s).empty());
    EXPECT_EQ(clocks.take_overdue(both_open, begin + 71s, begin + 71s), std::vector{one});
}

TEST(reports_connections, of_requests_that_were_sent_at_once_all_are_answered_first) {
    request_clocks clocks(10s);
    clocks.open(one, begin);
    clocks.arrive(one);
    clocks.arrive(one);
    clocks.answer(one, begin + 1s);
    EXPECT_TRUE(clocks.take_overdue(both_open, begin + 60s, begin + 60s).empty());
    clocks.answer(one, begin + 60s);
    EXPECT_EQ(clocks.take_overdue(both_open, begin + 71s, begin + 71s), std::vector{one});
}

TEST(reports_connections, what_is_closed_is_forgotten_and_what_came_after_the_list_is_not) {
    request_clocks clocks(10s);
    clocks.open(one, begin);
    clocks.open(other, begin + 2s);
    EXPECT_TRUE(clocks.take_overdue({}, begin + 2s, begin + 3s).empty());
    EXPECT_EQ(clocks.size(), 1U);
    // Its answer comes late, and must not begin anything.
    clocks.arrive(one);
    clocks.answer(one, begin + 3s);
    EXPECT_EQ(clocks.size(), 1U);
    EXPECT_EQ(clocks.take_overdue(both_open, begin + 13s, begin + 13s), std::vector{other});
    EXPECT_EQ(clocks.size(), 0U);
}

TEST(reports_connections, the_answer_to_a_former_connection_of_the_same_ends_does_not_count) {
    request_clocks clocks(10s);
    clocks.open(one, begin);
    clocks.arrive(one);
    clocks.open(one, begin + 1s);
    clocks.answer(one, begin + 9s);
    EXPECT_EQ(clocks.take_overdue(both_open, begin + 12s, begin + 12s), std::vector{one});
}

TEST(reports_connections, what_ends_before_its_first_request_is_whole_is_counted_once) {
    request_clocks clocks(10s);
    clocks.open(one, begin);
    clocks.arrive(one);
    clocks.answer(one, begin);
    clocks.open(other, begin);
    EXPECT_TRUE(clocks.take_overdue(both_open, begin + 1s, begin + 1s).empty());
    EXPECT_EQ(clocks.unfinished(), 0U);
    clocks.take_overdue({}, begin + 2s, begin + 2s);
    clocks.take_overdue({}, begin + 3s, begin + 3s);
    EXPECT_EQ(clocks.unfinished(), 1U);
    // One that is replaced before anybody has looked.
    clocks.open(one, begin + 4s);
    clocks.open(one, begin + 5s);
    EXPECT_EQ(clocks.unfinished(), 2U);
    // What is cut is counted as that.
    EXPECT_EQ(clocks.take_overdue(both_open, begin + 16s, begin + 16s), std::vector{one});
    EXPECT_EQ(clocks.unfinished(), 2U);
}

// A descriptor of its own.
class handle {
public:
    explicit handle(int number) : m_number(number) { EXPECT_GE(number, 0); }
    ~handle() { ::close(m_number); }
    handle(const handle&) = delete;
    handle& operator=(const handle&) = delete;
    operator int() const { return m_number; }

private:
    int m_number;
};

template <typename Address> Address address_of(int number, decltype(&::getsockname) ask) {
    Address found{};
    socklen_t size = sizeof found;
    EXPECT_EQ(ask(number, reinterpret_cast<sockaddr*>(&found), &size), 0);
    return found;
}

// A connection over the loopback, and what its server has of it.
template <typename Address> class open_connection {
public:
    explicit open_connection(const Address& loopback)
        : m_listener(listen(loopback)), client(connect(address_of<Address>(m_listener, &::getsockname))),
          server(::accept(m_listener, nullptr, nullptr)) {}

    connection ends() const {
        const auto peer = address_of<Address>(client, &::getsockname);
        const auto local = address_of<Address>(m_listener, &::getsockname);
        return connection_of(reinterpret_cast<const sockaddr&>(peer),
                             reinterpret_cast<const sockaddr&>(local));
    }

private:
    static int listen(const Address& where) {
        const int made =
            ::socket(reinterpret_cast<const sockaddr&>(where).sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(::bind(made, reinterpret_cast<const sockaddr*>(&where), sizeof where), 0);
        EXPECT_EQ(::listen(made, 1), 0);
        return made;
    }
    static int connect(const Address& where) {
        const int made =
            ::socket(reinterpret_cast<const sockaddr&>(where).sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(::connect(made, reinterpret_cast<const sockaddr*>(&where), sizeof where), 0);
        return made;
    }

    handle m_listener;

public:
    handle client;
    handle server;
};

sockaddr_in ipv4() {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

sockaddr_in6 ipv6() {
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_addr = in6addr_loopback;
    return address;
}

template <typename Address> void is_found_and_cut(const Address& loopback) {
    const open_connection<Address> first(loopback);
    const open_connection<Address> second(loopback);
    const std::map<connection, int> found = open_connections();
    ASSERT_TRUE(found.contains(first.ends()));
    EXPECT_EQ(found.at(first.ends()), int{first.server});
    EXPECT_EQ(found.at(second.ends()), int{second.server});
    EXPECT_FALSE(cut(first.ends(), second.server));
    EXPECT_FALSE(cut(first.ends(), -1));
    EXPECT_TRUE(cut(first.ends(), first.server));
    char byte{};
    EXPECT_EQ(::recv(first.client, &byte, 1, 0), 0);
    EXPECT_EQ(::recv(first.server, &byte, 1, 0), 0);
    // The other one is as it was.
    EXPECT_EQ(::send(second.client, "x", 1, MSG_NOSIGNAL), 1);
    EXPECT_EQ(::recv(second.server, &byte, 1, 0), 1);
}

TEST(reports_connections, an_open_one_is_found_by_its_ends_and_cut_alone) {
    is_found_and_cut(ipv4());
    is_found_and_cut(ipv6());
}

TEST(reports_connections, what_is_no_tcp_connection_has_no_ends) {
    std::array<int, 2> pair{};
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, pair.data()), 0);
    const handle left(pair[0]);
    const handle right(pair[1]);
    for (const auto& [which, descriptor] : open_connections()) {
        EXPECT_NE(descriptor, int{left});
        EXPECT_NE(descriptor, int{right});
    }
    EXPECT_FALSE(cut({}, left));
}

TEST(reports_connections, a_peer_that_has_not_taken_everything_is_still_reading) {
    const open_connection<sockaddr_in> shared(ipv4());
    EXPECT_FALSE(is_being_read(shared.server));
    ASSERT_EQ(::fcntl(shared.server, F_SETFL, O_NONBLOCK), 0);
    const std::vector<char> piece(65536);
    while (::send(shared.server, piece.data(), piece.size(), MSG_NOSIGNAL) > 0) {
    }
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_TRUE(is_being_read(shared.server));
    EXPECT_FALSE(is_being_read(-1));
}

} // namespace
