#include "platform/exception_message.h"

#include "platform/user_cancelled.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <type_traits>

using corvo::exception_message;

namespace {

// The message of what `action` throws.
template <class F> std::string message_of(F action) {
    try {
        action();
    } catch (const std::exception& error) {
        return exception_message(error);
    }
    return "nothing was thrown";
}

class silent : public std::exception {
public:
    explicit silent(const char* text) : m_text(text) {}
    const char* what() const noexcept override { return m_text; }

private:
    const char* m_text;
};

struct unnamed : std::nested_exception, silent {
    using silent::silent;
};

} // namespace

TEST(exception_message, is_the_text_of_a_single_exception) {
    EXPECT_EQ("Untrusted Minisign key", exception_message(std::runtime_error("Untrusted Minisign key")));
    EXPECT_EQ("a\xC4\x8D", exception_message(std::logic_error("a\xC4\x8D")));
}

TEST(exception_message, joins_outer_and_inner_by_a_colon_and_a_space) {
    EXPECT_EQ("Failed to load Minisign signature: 404", message_of([] {
                  try {
                      throw std::runtime_error("404");
                  } catch (...) {
                      std::throw_with_nested(std::runtime_error("Failed to load Minisign signature"));
                  }
              }));
}

TEST(exception_message, goes_down_to_the_innermost_cause) {
    EXPECT_EQ("outer: middle: inner", message_of([] {
                  try {
                      try {
                          throw std::invalid_argument("inner");
                      } catch (...) {
                          std::throw_with_nested(std::logic_error("middle"));
                      }
                  } catch (...) {
                      std::throw_with_nested(std::runtime_error("outer"));
                  }
              }));
}

TEST(exception_message, reads_unknown_exception_for_a_nested_object_that_is_no_exception) {
    EXPECT_EQ("outer: Unknown exception", message_of([] {
                  try {
                      throw 42;
                  } catch (...) {
                      std::throw_with_nested(std::runtime_error("outer"));
                  }
              }));
}

TEST(exception_message, ends_where_nothing_is_nested) {
    EXPECT_EQ("alone", message_of([] { std::throw_with_nested(std::runtime_error("alone")); }));
}

TEST(exception_message, reads_unknown_exception_for_an_exception_without_a_text) {
    EXPECT_EQ("Unknown exception", exception_message(silent("")));
    EXPECT_EQ("Unknown exception", exception_message(silent(nullptr)));
    EXPECT_EQ("Unknown exception: inner", message_of([] {
                  try {
                      throw std::runtime_error("inner");
                  } catch (...) {
                      throw unnamed("");
                  }
              }));
}

TEST(exception_message, leaves_the_exception_being_handled_as_it_was) {
    try {
        try {
            throw std::runtime_error("inner");
        } catch (...) {
            std::throw_with_nested(std::runtime_error("outer"));
        }
    } catch (const std::exception& error) {
        EXPECT_EQ("outer: inner", exception_message(error));
        EXPECT_EQ("outer: inner", exception_message(error));
        EXPECT_STREQ("outer", error.what());
    }
}

TEST(user_cancelled, holds_its_text) {
    EXPECT_STREQ("operation cancelled", corvo::user_cancelled("operation cancelled").what());
}

TEST(user_cancelled, reads_unknown_exception_without_a_text) {
    EXPECT_STREQ("Unknown exception", corvo::user_cancelled("").what());
}

TEST(user_cancelled, is_a_copyable_runtime_error_without_a_number) {
    static_assert(std::is_base_of_v<std::runtime_error, corvo::user_cancelled>);
    static_assert(std::is_copy_constructible_v<corvo::user_cancelled>);
    static_assert(sizeof(corvo::user_cancelled) == sizeof(std::runtime_error));
    const corvo::user_cancelled first("operation cancelled");
    const corvo::user_cancelled second = first; // NOLINT(performance-unnecessary-copy-initialization)
    EXPECT_STREQ("operation cancelled", second.what());
}
