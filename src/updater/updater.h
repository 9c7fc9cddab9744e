// The update driver: finds out whether an update exists, and installs it.
//
// Owns the one WinHTTP session of the run. Used on the main thread only, with COM initialised. Failures are exceptions; what
// they mean to an administrator stands in the entry point's error event.
#pragma once

#include "http/request/session.h"
#include "platform/progress.h"

#include <cstdint>
#include <string>

namespace corvo::updater {

class Updater {
public:
    // Bit of the flags: nobody watches. An empty channel then switches updates off, and the installer remains quiet.
    static constexpr unsigned int unattended = 1;

    // Performs the whole check: reads the channel from the registry, fetches the channel's update description, verifies its
    // signature and reads it. Throws on any failure.
    explicit Updater(unsigned int flags);

    // Downloads the offered package, unless the folder holds it already, verifies its signature and starts the installer,
    // without waiting for it. `progress` may be null.
    //
    // Throws std::invalid_argument "update URL unavailable" or what webio::parse_url throws for a bad address;
    // pwrap::com_runtime_error, pwrap::win_runtime_error or std::system_error for folder, file and installer; what
    // corvo::minisign::verified_fetch throws. A failed download leaves the partly written file, which the next run
    // replaces; one that exceeds the limit of a package is removed.
    void install(unsigned int flags, corvo::progress<std::uint64_t>* progress);

    std::wstring channel = L"stable";
    std::uint32_t version = 0; // offered by the description; 0 until one is read
    std::string label;         // second line of the description; kept, not used further
    std::string package_url;   // address of the package folder
    std::string platform_suffix;
    std::string
        variant; // chosen on the command line, in the active ANSI code page; part of the package's name

private:
    webio::session m_session;
};

} // namespace corvo::updater
