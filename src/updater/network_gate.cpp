#include "updater/network_gate.h"

namespace corvo::updater {

gate judge_cost(std::uint32_t cost) noexcept {
    // NLM_CONNECTION_COST values, written out so that the verdict builds anywhere.
    constexpr std::uint32_t level_mask = 0xffff;
    constexpr std::uint32_t fixed = 0x2; // unknown is 0, unrestricted 1, variable 4
    constexpr std::uint32_t over_data_limit = 0x10000;
    constexpr std::uint32_t congested = 0x20000;
    constexpr std::uint32_t approaching_data_limit = 0x80000;

    if ((cost & level_mask) >= fixed) {
        return gate::metered;
    }
    if ((cost & (over_data_limit | approaching_data_limit)) != 0) {
        return gate::data_limit;
    }
    if ((cost & congested) != 0) {
        return gate::congested;
    }
    return gate::open;
}

} // namespace corvo::updater
