#include "tools/proof/together.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <stdexcept>

namespace {

using proof::apart;

TEST(proof_together, takes_files_apart_that_lie_together_in_blocks_of_512_bytes) {
    const std::string first = std::string(512, 'a') + std::string(512, 'b') + "c";
    const std::string second = std::string(512, 'd') + "e";
    const std::string together =
        std::string(512, 'a') + std::string(512, 'd') + std::string(512, 'b') + "e" + "c";
    EXPECT_THAT(apart(together, std::array<std::size_t, 3>{1025, 0, 513}),
                testing::ElementsAre(first, "", second));
}

TEST(proof_together, has_nothing_in_nothing) {
    EXPECT_TRUE(apart("", {}).empty());
}

TEST(proof_together, refuses_sizes_that_are_not_those_of_the_files) {
    EXPECT_THROW(apart("ab", std::array<std::size_t, 1>{1}), std::runtime_error);
    EXPECT_THROW(apart("ab", std::array<std::size_t, 2>{1, 2}), std::runtime_error);
    EXPECT_THROW(apart("a", {}), std::runtime_error);
}

} // namespace
