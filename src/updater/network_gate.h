// Whether the network may be used for an update check. Metered, nearly used up and congested connections are left alone.
#pragma once

#include <cstdint>

namespace corvo::updater {

// Exit codes, and the ids of the events that go with them.
enum class gate : int {
    open = 0,
    not_connected = 2,
    metered = 3,
    data_limit = 4,
    congested = 5,
};

// The verdict on a connection with `cost`, an NLM_CONNECTION_COST bit mask. Roaming is deliberately not looked at on its own:
// the cost of a roaming connection is in the other bits. Portable.
gate judge_cost(std::uint32_t cost) noexcept;

} // namespace corvo::updater
