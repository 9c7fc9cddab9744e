#include "stream/basic_file.h"

#include "tests/stream/expect.h"
#include "tests/stream/slots.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <utility>
#include <vector>

using corvo::stream::foff;
using corvo::stream::fpos;
using corvo::stream::fsize;
using corvo::stream::seek_t;
using corvo::stream::state_t;
using corvo::stream::time_point;

namespace {

// The least that a file must have; it writes down where it was sent.
class least_file : public corvo::stream::basic_file {
public:
    fpos seek(foff offset, seek_t how) override {
        m_sought.emplace_back(offset, how);
        return 0;
    }

    fpos tell() override { return 0; }

    fsize size() override { return 0; }

    void truncate() override {}

    void put(state_t state) { m_state = state; }

    [[nodiscard]] const std::vector<std::pair<foff, seek_t>>& sought() const { return m_sought; }

private:
    std::vector<std::pair<foff, seek_t>> m_sought;
};

using places = std::vector<std::pair<foff, seek_t>>;

} // namespace

static_assert(std::is_abstract_v<corvo::stream::basic_file>);

TEST(stream_basic_file, keeps_its_virtual_functions_in_slot_order) {
    using corvo::stream::basic_file;
    const std::size_t first = 0;
    EXPECT_EQ(first, test::slot_of(&basic_file::seek));
    EXPECT_EQ(first + 1, test::slot_of(&basic_file::tell));
    EXPECT_EQ(first + 2, test::slot_of(&basic_file::lock));
    EXPECT_EQ(first + 3, test::slot_of(&basic_file::unlock));
    EXPECT_EQ(first + 4, test::slot_of(&basic_file::size));
    EXPECT_EQ(first + 5, test::slot_of(&basic_file::truncate));
    EXPECT_EQ(first + 6, test::slot_of(&basic_file::ctime));
    EXPECT_EQ(first + 7, test::slot_of(&basic_file::atime));
    EXPECT_EQ(first + 8, test::slot_of(&basic_file::mtime));
    EXPECT_EQ(first + 9, test::slot_of(&basic_file::set_ctime));
    EXPECT_EQ(first + 10, test::slot_of(&basic_file::set_atime));
    EXPECT_EQ(first + 11, test::slot_of(&basic_file::set_mtime));
}

TEST(stream_basic_file, skips_by_seeking_from_the_current_position) {
    least_file file;
    file.skip(0);
    file.skip(5);
    file.skip(0x7FFFFFFFFFFFFFFF);
    EXPECT_EQ(places({{0, corvo::stream::seek_cur},
                      {5, corvo::stream::seek_cur},
                      {0x7FFFFFFFFFFFFFFF, corvo::stream::seek_cur}}),
              file.sought());
}

TEST(stream_basic_file, refuses_to_skip_0x8000000000000000_bytes) {
    least_file file;
    test::expect_throw<std::invalid_argument>("file offset too big", [&] { file.skip(0x8000000000000000); });
    test::expect_throw<std::invalid_argument>("file offset too big", [&] { file.skip(0xFFFFFFFFFFFFFFFF); });
    EXPECT_EQ(places(), file.sought());
}

TEST(stream_basic_file, has_no_locks_and_no_times_to_set) {
    least_file file;
    test::expect_throw<std::domain_error>("not implemented", [&] { file.lock(0, 1); });
    test::expect_throw<std::domain_error>("not implemented", [&] { file.unlock(0, 1); });
    test::expect_throw<std::domain_error>("not implemented", [&] { file.set_ctime(0); });
    test::expect_throw<std::domain_error>("not implemented", [&] { file.set_atime(0); });
    test::expect_throw<std::domain_error>("not implemented", [&] { file.set_mtime(0); });
    EXPECT_TRUE(file.ok());
}

TEST(stream_basic_file, has_no_times_and_keeps_its_state_when_asked) {
    least_file file;
    file.put(state_t::eof);
    EXPECT_EQ(0x8000000000000000U, static_cast<std::uint64_t>(file.ctime()));
    EXPECT_EQ(0x8000000000000000U, static_cast<std::uint64_t>(file.atime()));
    EXPECT_EQ(0x8000000000000000U, static_cast<std::uint64_t>(file.mtime()));
    EXPECT_EQ(state_t::eof, file.state());
}
