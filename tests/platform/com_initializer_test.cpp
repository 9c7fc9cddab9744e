#include "platform/com_initializer.h"

#include "tests/support/substitutes.h"

#include <gtest/gtest.h>

#include <type_traits>

namespace {

class com {
public:
    explicit com(HRESULT result) : m_result(result) {}

    int initialized = 0;
    int uninitialized = 0;

private:
    HRESULT m_result;
    support::script<decltype(::CoInitialize)> m_initialize{support::CoInitialize, [this](void* reserved) {
                                                               EXPECT_EQ(nullptr, reserved);
                                                               ++initialized;
                                                               return m_result;
                                                           }};
    support::script<decltype(::CoUninitialize)> m_uninitialize{support::CoUninitialize,
                                                               [this] { ++uninitialized; }};
};

} // namespace

TEST(com_initializer, cannot_be_copied) {
    static_assert(!std::is_copy_constructible_v<pwrap::com_initializer>);
    static_assert(!std::is_copy_assignable_v<pwrap::com_initializer>);
    static_assert(std::has_virtual_destructor_v<pwrap::com_initializer>);
}

TEST(com_initializer, keeps_com_initialised_for_its_life) {
    const com library(S_OK);
    {
        const pwrap::com_initializer initializer;
        EXPECT_EQ(1, library.initialized);
        EXPECT_EQ(0, library.uninitialized);
    }
    EXPECT_EQ(1, library.initialized);
    EXPECT_EQ(1, library.uninitialized);
}

TEST(com_initializer, takes_a_positive_result_for_success_and_balances_it) {
    const com library(S_FALSE);
    {
        const pwrap::com_initializer initializer;
    }
    EXPECT_EQ(1, library.initialized);
    EXPECT_EQ(1, library.uninitialized);
}

TEST(com_initializer, throws_for_a_negative_result_and_uninitialises_nothing) {
    const auto changed_mode = static_cast<HRESULT>(0x80010106);
    const com library(changed_mode);
    try {
        const pwrap::com_initializer initializer;
        ADD_FAILURE() << "nothing was thrown";
    } catch (const pwrap::com_runtime_error& error) {
        EXPECT_EQ(changed_mode, error.number());
        EXPECT_EQ("CoInitialize failed: " + pwrap::com_error_message(changed_mode, 0), error.what());
    }
    EXPECT_EQ(0, library.uninitialized);
}
