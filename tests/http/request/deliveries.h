// The ways that notifications may come, for the tests of whole exchanges: each of those runs with every one of them.
#pragma once

#include "tests/support/fake_winhttp.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <utility>

// How they are delivered, and on how many worker threads.
using delivery_way = std::pair<support::fake_winhttp::delivery, std::size_t>;

inline auto deliveries() {
    using delivery = support::fake_winhttp::delivery;
    return ::testing::Values(delivery_way(delivery::nested, 0), delivery_way(delivery::calling_thread, 0),
                             delivery_way(delivery::worker, 1), delivery_way(delivery::worker, 3));
}

inline std::string delivery_name(const ::testing::TestParamInfo<delivery_way>& tested) {
    using delivery = support::fake_winhttp::delivery;
    switch (tested.param.first) {
    case delivery::nested:
        return "nested";
    case delivery::calling_thread:
        return "on_the_calling_thread";
    case delivery::worker:
        break;
    }
    return "on_" + std::to_string(tested.param.second) + "_workers";
}
