#include "stream/sys_object.h"

#include "tests/stream/expect.h"
#include "tests/stream/slots.h"
#include "tests/support/substitutes.h"

#include <gtest/gtest.h>

#include <bit>
#include <stdexcept>
#include <type_traits>
#include <vector>

namespace {

using sys_object = corvo::basic_sys_object<HANDLE, corvo::sys_object_traits>;

HANDLE handle_of(ULONG_PTR number) {
    return std::bit_cast<HANDLE>(number);
}

using handles = std::vector<HANDLE>;

} // namespace

static_assert(!std::is_copy_constructible_v<sys_object>);
static_assert(!std::is_copy_assignable_v<sys_object>);
static_assert(!std::is_move_constructible_v<sys_object>);
static_assert(std::has_virtual_destructor_v<sys_object>);
static_assert(!std::is_nothrow_destructible_v<sys_object>);

class sys_object_test : public testing::Test {
protected:
    // Closing fails with this number, unless it is 0.
    DWORD m_number = 0;
    handles m_closed;
    support::script<BOOL(HANDLE)> m_close{support::CloseHandle, [this](HANDLE handle) -> BOOL {
                                              m_closed.push_back(handle);
                                              if (m_number != 0) {
                                                  ::SetLastError(m_number);
                                                  return FALSE;
                                              }
                                              return TRUE;
                                          }};
};

TEST_F(sys_object_test, has_freeing_in_the_slot_behind_the_destructor) {
    EXPECT_EQ(2U, test::slot_of(&sys_object::free)); // the destructor takes the first two
}

TEST_F(sys_object_test, starts_without_a_handle_and_releases_nothing) {
    {
        sys_object object;
        EXPECT_FALSE(object.valid());
        object.free();
    }
    EXPECT_EQ(handles(), m_closed);
}

TEST_F(sys_object_test, takes_all_bits_set_for_no_handle) {
    {
        const sys_object object(handle_of(~ULONG_PTR{0}));
        EXPECT_FALSE(object.valid());
    }
    EXPECT_EQ(handles(), m_closed);
}

TEST_F(sys_object_test, releases_its_handle_once) {
    {
        sys_object object(handle_of(0x5554));
        EXPECT_TRUE(object.valid());
        object.free();
        EXPECT_FALSE(object.valid());
        object.free();
    }
    EXPECT_EQ(handles({handle_of(0x5554)}), m_closed);
}

TEST_F(sys_object_test, releases_its_handle_at_its_end) {
    {
        const sys_object object(handle_of(0x5554));
    }
    EXPECT_EQ(handles({handle_of(0x5554)}), m_closed);
}

TEST_F(sys_object_test, tolerates_at_its_end_that_the_handle_is_invalid_and_keeps_the_last_error) {
    m_number = 6;
    EXPECT_NO_THROW({
        const sys_object object(handle_of(0x5554));
        ::SetLastError(1234);
    });
    const DWORD number = ::GetLastError();
    EXPECT_EQ(1234U, number);
    EXPECT_EQ(handles({handle_of(0x5554)}), m_closed);
}

TEST_F(sys_object_test, throws_at_its_end_where_closing_fails_otherwise) {
    m_number = 5;
    test::expect_system_error(5, "CloseHandle failed", [] { const sys_object object(handle_of(0x5554)); });
    EXPECT_EQ(handles({handle_of(0x5554)}), m_closed);
}

// A second exception would end the program, and the first one is the cause.
TEST_F(sys_object_test, throws_nothing_at_its_end_while_an_exception_is_on_its_way_out) {
    m_number = 5;
    test::expect_throw<std::runtime_error>("the cause", [] {
        const sys_object object(handle_of(0x5554));
        throw std::runtime_error("the cause");
    });
    EXPECT_EQ(handles({handle_of(0x5554)}), m_closed);
}

// One that was made while an exception was on its way out, and goes before that has come anywhere, throws as ever.
TEST_F(sys_object_test, throws_at_its_end_inside_of_what_an_exception_runs) {
    m_number = 5;
    struct cleaner {
        ~cleaner() {
            test::expect_system_error(5, "CloseHandle failed",
                                      [] { const sys_object object(handle_of(0x5554)); });
        }
    };
    test::expect_throw<std::runtime_error>("the cause", [] {
        const cleaner runs;
        throw std::runtime_error("the cause");
    });
    EXPECT_EQ(handles({handle_of(0x5554)}), m_closed);
}

TEST_F(sys_object_test, throws_where_freeing_fails_and_does_not_try_again) {
    m_number = 5;
    {
        sys_object object(handle_of(0x5554));
        test::expect_system_error(5, "CloseHandle failed", [&] { object.free(); });
        EXPECT_FALSE(object.valid());
    }
    EXPECT_EQ(handles({handle_of(0x5554)}), m_closed);
}
