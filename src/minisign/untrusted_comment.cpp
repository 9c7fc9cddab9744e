#include "minisign/untrusted_comment.h"

#include <string_view>

namespace corvo::minisign {

// The flag for case-insensitive matching is ignored: the format has one spelling.
bool untrusted_comment::do_match(const char* text, std::size_t start, std::size_t end, unsigned) noexcept {
    constexpr std::string_view prefix = "untrusted comment:";
    for (std::size_t i = 0; i < prefix.size(); ++i) {
        if (!readable(text, start + i, end) || text[start + i] != prefix[i]) {
            return fail();
        }
    }
    return succeed(start, start + prefix.size());
}

} // namespace corvo::minisign
