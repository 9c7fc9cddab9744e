#include "updater/command_line.h"

#include "platform/errors.h"
#include "platform/text.h"
#include "updater/installer.h"

#include <shellapi.h>

#include <memory>

namespace corvo::updater {
namespace {

struct local_memory_deleter {
    void operator()(wchar_t** memory) const noexcept { ::LocalFree(memory); }
};

} // namespace

std::string requested_variant() {
    int count = 0;
    const std::unique_ptr<wchar_t*[], local_memory_deleter> arguments(
        ::CommandLineToArgvW(::GetCommandLineW(), &count));
    if (!arguments) {
        pwrap::throw_last<pwrap::win_runtime_error>("CommandLineToArgvW failed");
    }
    if (count < 2) {
        return {};
    }
    const std::wstring variant = arguments[1];
    return is_plain_name(variant) ? pwrap::narrow_user_text(::GetACP(), variant) : std::string();
}

} // namespace corvo::updater
