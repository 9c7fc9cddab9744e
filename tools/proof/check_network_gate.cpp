#include "tools/proof/checks.h"
#include "tools/proof/web_server.h"

#include "platform/com_initializer.h"
#include "platform/errors.h"
#include "platform/handle.h"

#include <netlistmgr.h>

namespace proof {

namespace {

struct connection_state {
    bool connected = false;
    DWORD cost = 0;
};

connection_state ask_system() {
    const pwrap::com_initializer com;
    pwrap::com_obj<INetworkListManager> manager;
    if (const HRESULT result = manager.create(CLSID_NetworkListManager, IID_INetworkListManager);
        FAILED(result)) {
        throw pwrap::com_runtime_error(result, "the network list manager cannot be asked");
    }
    connection_state state;
    VARIANT_BOOL connected = VARIANT_FALSE;
    if (const HRESULT result = manager->IsConnectedToInternet(&connected); FAILED(result)) {
        throw pwrap::com_runtime_error(result, "the network list manager does not answer");
    }
    state.connected = connected != VARIANT_FALSE;
    pwrap::com_obj<INetworkCostManager> costs;
    if (SUCCEEDED(costs.query(manager, IID_INetworkCostManager))) {
        costs->GetCost(&state.cost, nullptr);
    }
    return state;
}

// What the updater is to end with. Nothing is published, so that a run that goes on fails.
const char* wanted_exit(const connection_state& state) noexcept {
    constexpr DWORD fixed_or_variable = 0x2 | 0x4;
    constexpr DWORD at_its_limit = 0x10000 | 0x80000;
    constexpr DWORD congested = 0x20000;
    return !state.connected                        ? "0x00000002"
           : (state.cost & fixed_or_variable) != 0 ? "0x00000003"
           : (state.cost & at_its_limit) != 0      ? "0x00000004"
           : (state.cost & congested) != 0         ? "0x00000005"
                                                   : "0x80000001";
}

} // namespace

void check_network_gate(context& around, findings& found) {
    const connection_state state = ask_system();
    const web_server server(80);
    around.changes.add_host_names({"updates.tavrin.example", "reports.tavrin.example"});
    const finished_run run = run_updater(around);
    const std::string wanted = wanted_exit(state);
    found.note("network-gate.connected", state.connected ? "yes" : "no");
    found.note("network-gate.cost", hexadecimal(state.cost));
    found.see("network-gate.exit", wanted, exit_text(run));
    found.see("network-gate.asked the server", wanted == "0x80000001" ? "yes" : "no",
              server.targets().empty() ? "no" : "yes");
    const std::vector<event> events = around.events.since(true);
    found.see_number("network-gate.events", 1, events.size());
    found.see("network-gate.event", wanted, events.empty() ? "none" : hexadecimal(events[0].id));
}

} // namespace proof
