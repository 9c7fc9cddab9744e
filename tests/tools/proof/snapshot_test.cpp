#include "tools/proof/snapshot.h"

#include <gtest/gtest.h>

namespace {

using proof::changes;
using proof::snapshot;

TEST(proof_snapshot, shows_no_change_where_there_is_none) {
    EXPECT_EQ(changes({}, {}), "none");
    const snapshot same{{"file a", "1"}, {"key b", ""}};
    EXPECT_EQ(changes(same, same), "none");
}

TEST(proof_snapshot, names_what_is_new_gone_and_changed_in_the_order_of_the_names) {
    const snapshot before{{"file a", "1"}, {"file b", "1"}, {"key c", ""}, {"value d", ""}};
    const snapshot after{{"file a", "2"}, {"folder a", ""}, {"key c", ""}, {"value d", "x"}};
    EXPECT_EQ(changes(before, after), "changed file a, gone file b, new folder a, changed value d");
    EXPECT_EQ(changes(after, before), "changed file a, new file b, gone folder a, changed value d");
}

} // namespace
