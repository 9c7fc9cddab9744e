#include "platform/progress.h"

#include "tests/stream/slots.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace {

using progress = corvo::progress<std::uint64_t>;
using global_progress = corvo::global_progress<std::uint64_t>;

// Records its calls.
class recorder : public progress {
public:
    void text(const wchar_t* message) override { texts.emplace_back(message); }

    void set_range(std::uint64_t start, std::uint64_t end) override { ranges.emplace_back(start, end); }

    void set(std::uint64_t position) override { positions.push_back(position); }

    void show(bool visible) override { shown.push_back(visible); }

    bool cancel() override {
        ++asked;
        return cancelled;
    }

    std::vector<std::wstring> texts;
    std::vector<std::pair<std::uint64_t, std::uint64_t>> ranges;
    std::vector<std::uint64_t> positions;
    std::vector<bool> shown;
    int asked = 0;
    bool cancelled = false;
};

using positions = std::vector<std::uint64_t>;

} // namespace

static_assert(!std::is_copy_constructible_v<progress>);
static_assert(std::has_virtual_destructor_v<progress>);

TEST(progress, keeps_its_virtual_functions_in_slot_order) {
    EXPECT_EQ(2U, test::slot_of(&progress::text)); // the destructor takes the first two
    EXPECT_EQ(3U, test::slot_of(&progress::set_range));
    EXPECT_EQ(4U, test::slot_of(&progress::set));
    EXPECT_EQ(5U, test::slot_of(&progress::show));
    EXPECT_EQ(6U, test::slot_of(&progress::cancel));
}

TEST(progress, ignores_everything_and_never_cancels) {
    progress indicator;
    indicator.text(L"text");
    indicator.set_range(0, 10);
    indicator.set(5);
    indicator.show(true);
    EXPECT_FALSE(indicator.cancel());
}

TEST(global_progress, with_a_null_host_calls_nothing_and_never_cancels) {
    global_progress adapter(nullptr, 100, 200);
    adapter.text(L"text");
    adapter.set_range(0, 1000);
    adapter.set(500);
    adapter.show(true);
    EXPECT_FALSE(adapter.cancel());
}

TEST(global_progress, turns_500_of_0_to_1000_into_150_of_100_to_200) {
    recorder host;
    global_progress adapter(&host, 100, 200);
    adapter.set_range(0, 1000);
    adapter.set(500);
    EXPECT_EQ(positions({150}), host.positions);
}

TEST(global_progress, maps_the_ends_and_truncates_between) {
    recorder host;
    global_progress adapter(&host, 100, 200);
    adapter.set_range(1000, 1300);
    adapter.set(1000);
    adapter.set(1001); // a third
    adapter.set(1200); // 66.67
    adapter.set(1299); // 99.67
    adapter.set(1300);
    EXPECT_EQ(positions({100, 100, 166, 199, 200}), host.positions);
}

TEST(global_progress, forwards_no_positions_while_its_range_is_empty) {
    recorder host;
    global_progress adapter(&host, 100, 200);
    adapter.set(0);
    adapter.set_range(1000, 1000);
    adapter.set(1000);
    adapter.set_range(1000, 999);
    adapter.set(999);
    EXPECT_EQ(positions(), host.positions);
}

TEST(global_progress, stays_at_the_start_of_an_empty_slice) {
    recorder host;
    global_progress empty(&host, 100, 100);
    empty.set_range(0, 10);
    empty.set(5);
    global_progress reversed(&host, 100, 50);
    reversed.set_range(0, 10);
    reversed.set(10);
    EXPECT_EQ(positions({100, 100}), host.positions);
}

TEST(global_progress, keeps_its_range_to_itself) {
    recorder host;
    global_progress adapter(&host, 100, 200);
    adapter.set_range(0, 1000);
    EXPECT_TRUE(host.ranges.empty());
    EXPECT_TRUE(host.positions.empty());
}

TEST(global_progress, maps_a_range_of_the_whole_type) {
    recorder host;
    global_progress adapter(&host, 0, 0xFFFFFFFFFFFFFFFF);
    adapter.set_range(0, 0xFFFFFFFFFFFFFFFF);
    adapter.set(0);
    adapter.set(0x8000000000000000);
    adapter.set(0xFFFFFFFFFFFFFFFF);
    EXPECT_EQ(positions({0, 0x8000000000000000, 0xFFFFFFFFFFFFFFFF}), host.positions);
}

TEST(global_progress, carries_positions_outside_its_range_as_far_as_a_position_can_go) {
    recorder host;
    global_progress adapter(&host, 100, 200);
    adapter.set_range(1000, 2000);
    adapter.set(3000);
    adapter.set(999);
    adapter.set(0);
    EXPECT_EQ(positions({300, 100, 100}), host.positions);
    global_progress wide(&host, 0x8000000000000000, 0xFFFFFFFFFFFFFFFF);
    wide.set_range(0, 1);
    wide.set(0xFFFFFFFFFFFFFFFF);
    EXPECT_EQ(0xFFFFFFFFFFFFFFFFU, host.positions.back());
}

TEST(global_progress, asks_its_host_whether_to_cancel) {
    recorder host;
    global_progress adapter(&host, 0, 1);
    EXPECT_FALSE(adapter.cancel());
    host.cancelled = true;
    EXPECT_TRUE(adapter.cancel());
    EXPECT_EQ(2, host.asked);
}

TEST(global_progress, passes_text_and_visibility_on) {
    recorder host;
    global_progress adapter(&host, 0, 1);
    adapter.text(L"loading");
    adapter.show(true);
    adapter.show(false);
    EXPECT_EQ(std::vector<std::wstring>({L"loading"}), host.texts);
    EXPECT_EQ(std::vector<bool>({true, false}), host.shown);
}

TEST(global_progress, works_on_another_adapter) {
    recorder host;
    global_progress outer(&host, 0, 1000);
    outer.set_range(0, 100);
    global_progress inner(&outer, 50, 100);
    inner.set_range(0, 10);
    inner.set(5);
    EXPECT_EQ(positions({750}), host.positions);
}
