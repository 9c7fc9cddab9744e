#include "updater/run.h"

#include "platform/com_initializer.h"
#include "platform/errors.h"
#include "platform/exception_message.h"
#include "platform/text.h"
#include "updater/ask_network.h"
#include "updater/command_line.h"
#include "updater/updater.h"
#include "updater/version.h"

#include <exception>
#include <new>

namespace corvo::updater {
namespace {

constexpr const wchar_t* product_name = L"Halvoro"; // insertion string %1 of every event

void report_skipped(HANDLE event_source, gate reason) noexcept {
    if (event_source == nullptr) {
        return;
    }
    const wchar_t* strings[] = {product_name};
    ::ReportEventW(event_source, EVENTLOG_INFORMATION_TYPE, 0, static_cast<DWORD>(reason), nullptr, 1, 0,
                   strings, nullptr);
}

void report_failure(HANDLE event_source, const std::exception& error) {
    if (event_source == nullptr) {
        return;
    }
    std::wstring
        message; // remains empty if the text cannot be composed or converted: an event without its reason is better than none
    try {
        pwrap::utf8_to_wide(corvo::exception_message(error), message);
    } catch (const std::bad_alloc&) { // NOLINT(bugprone-empty-catch): which may be what has failed the run
    }
    const wchar_t* strings[] = {product_name, message.c_str()};
    ::ReportEventW(event_source, EVENTLOG_ERROR_TYPE, 0, run_failed, nullptr, 2, 0, strings, nullptr);
}

} // namespace

int run(HANDLE event_source) {
    const pwrap::com_initializer com;
    pwrap::com_obj<INetworkListManager> network;
    const gate verdict = ask_network(network);
    if (verdict != gate::open) {
        report_skipped(event_source, verdict);
        return static_cast<int>(verdict);
    }
    try {
        Updater updater(Updater::unattended);
        if (updater.version > own_version) { // unsigned: all ones counts as newer, the same version does not
            updater.variant = requested_variant();
            updater.install(Updater::unattended, nullptr);
        }
    } catch (const std::exception& error) {
        report_failure(event_source, error);
        return static_cast<int>(run_failed);
    }
    return 0;
}

} // namespace corvo::updater
