#include "updater/ask_network.h"

#include "tests/updater/fakes.h"

#include <gtest/gtest.h>

using namespace corvo::updater;

namespace {

constexpr HRESULT failure = static_cast<HRESULT>(0x80004005);

gate ask() {
    pwrap::com_obj<INetworkListManager> manager;
    return ask_network(manager);
}

using calls = std::vector<std::string>;

} // namespace

TEST(ask_network, judges_the_cost_of_a_connection) {
    fakes::network system;
    system.cost = 0x1;
    EXPECT_EQ(gate::open, ask());
    EXPECT_EQ((calls{"CoCreateInstance", "IsConnectedToInternet", "QueryInterface", "GetCost"}),
              system.calls);
    system.cost = 0x2;
    EXPECT_EQ(gate::metered, ask());
    system.cost = 0x30001;
    EXPECT_EQ(gate::data_limit, ask());
    system.cost = 0x20001;
    EXPECT_EQ(gate::congested, ask());
    system.cost = 0x40001;
    EXPECT_EQ(gate::open, ask());
}

TEST(ask_network, does_not_ask_for_the_cost_where_nothing_is_connected) {
    fakes::network system;
    system.connected = VARIANT_FALSE;
    system.cost = 0x2;
    EXPECT_EQ(gate::not_connected, ask());
    EXPECT_EQ((calls{"CoCreateInstance", "IsConnectedToInternet"}), system.calls);
}

TEST(ask_network, takes_any_value_but_false_for_connected) {
    fakes::network system;
    system.connected = 1;
    EXPECT_EQ(gate::open, ask());
}

TEST(ask_network, leaves_the_gate_open_where_there_is_no_list_manager) {
    fakes::network system;
    system.creation = failure;
    system.connected = VARIANT_FALSE;
    EXPECT_EQ(gate::open, ask());
    EXPECT_EQ((calls{"CoCreateInstance"}), system.calls);
}

TEST(ask_network, leaves_the_gate_open_where_the_connection_cannot_be_asked_for) {
    fakes::network system;
    system.connection = failure;
    system.connected = VARIANT_FALSE;
    EXPECT_EQ(gate::open, ask());
    EXPECT_EQ((calls{"CoCreateInstance", "IsConnectedToInternet"}), system.calls);
}

TEST(ask_network, leaves_the_gate_open_where_there_is_no_cost_manager) {
    fakes::network system;
    system.cost_interface = static_cast<HRESULT>(0x80004002);
    system.cost = 0x2;
    EXPECT_EQ(gate::open, ask());
    EXPECT_EQ((calls{"CoCreateInstance", "IsConnectedToInternet", "QueryInterface"}), system.calls);
}

TEST(ask_network, leaves_the_gate_open_where_the_cost_cannot_be_asked_for) {
    fakes::network system;
    system.cost_result = failure;
    system.cost = 0x2;
    EXPECT_EQ(gate::open, ask());
}

TEST(ask_network, takes_positive_results_for_success) {
    fakes::network system;
    system.creation = S_FALSE;
    system.connection = S_FALSE;
    system.cost_interface = S_FALSE;
    system.cost_result = S_FALSE;
    system.cost = 0x4;
    EXPECT_EQ(gate::metered, ask());
}

TEST(ask_network, releases_the_cost_manager_at_once_and_leaves_the_list_manager_to_the_caller) {
    fakes::network system;
    {
        pwrap::com_obj<INetworkListManager> manager;
        EXPECT_EQ(gate::open, ask_network(manager));
        EXPECT_EQ(1, system.cost_released);
        EXPECT_EQ(0, system.released);
    }
    EXPECT_EQ(1, system.released);
}
