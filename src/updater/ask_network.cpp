#include "updater/ask_network.h"

namespace corvo::updater {

gate ask_network(pwrap::com_obj<INetworkListManager>& manager) noexcept {
    // The platform documents the property as get_IsConnectedToInternet; this header has it without the prefix.
    VARIANT_BOOL connected = VARIANT_FALSE;
    if (FAILED(manager.create(CLSID_NetworkListManager, IID_INetworkListManager)) ||
        FAILED(manager->IsConnectedToInternet(&connected))) {
        return gate::open;
    }
    if (connected == VARIANT_FALSE) {
        return gate::not_connected;
    }
    pwrap::com_obj<INetworkCostManager> costs;
    DWORD cost = 0;
    if (FAILED(costs.query(manager, IID_INetworkCostManager)) || FAILED(costs->GetCost(&cost, nullptr))) {
        return gate::open;
    }
    return judge_cost(cost);
}

} // namespace corvo::updater
