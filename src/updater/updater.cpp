#include "updater/updater.h"

#include "errorreport/windows_version.h"
#include "http/request/connection.h"
#include "minisign/verified_fetch.h"
#include "platform/registry.h"
#include "stream/bounded_file.h"
#include "stream/bounded_memory_file.h"
#include "updater/build_config.h"
#include "updater/description.h"
#include "updater/installer.h"
#include "updater/version.h"

#include <filesystem>
#include <stdexcept>
#include <system_error>

namespace corvo::updater {
namespace {

// What is too long to be a package is nothing to go on with at the next run, and takes the disk's room.
void remove_package(corvo::stream::bounded_file& package, const std::wstring& path) noexcept {
    try {
        package.close();
    } catch (const std::system_error& later) {
        static_cast<void>(later); // what has brought us here is the cause
    }
    std::error_code ignored;
    std::filesystem::remove(path, ignored);
}

} // namespace

Updater::Updater(unsigned int flags)
    : platform_suffix(".ARM64"),
      m_session(std::string("Lumaris/") + own_version_text,
                {.resolve = 5000, .connect = 10000, .send = 30000, .receive = 30000}) {
    pwrap::reg_key key;
    if (key.open(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Tavrin\\Halvoro\\Lumaris", KEY_READ | KEY_WOW64_64KEY) ==
        ERROR_SUCCESS) {
        std::wstring configured;
        if (pwrap::RegQueryStringValue(key.get(), L"Channel", configured) == ERROR_SUCCESS &&
            is_plain_name(configured)) {
            channel = configured;
        }
    }
    if (channel.empty()) {
        if ((flags & unattended) != 0) {
            return; // an empty value is the administrator's way to switch updates off
        }
        channel = L"stable";
    }

    // Plain HTTP: integrity rests on the signature alone.
    const webio::url_parts url{
        .scheme = webio::url_scheme::http,
        .port = 80,
        .host = build_config::update_host,
        .user_name = {},
        .password = {},
        .path = description_path(corvo::errorreport::running_windows_version(), channel),
    };
    const webio::connection server(m_session, url);
    corvo::stream::bounded_memory_file text(max_description_size);
    corvo::minisign::verified_fetch(server, url, {{"Pragma", "no-cache"}, {"Cache-Control", "no-cache"}},
                                    "text/plain", build_config::trusted_keys, build_config::trusted_key_count,
                                    text, nullptr);
    text.seek(0, corvo::stream::seek_beg);
    update_description description = read_description(text);
    version = description.version;
    label = std::move(description.label);
    package_url = std::move(description.package_url);
}

void Updater::install(unsigned int flags, corvo::progress<std::uint64_t>* progress) {
    if (package_url.empty()) {
        throw std::invalid_argument("update URL unavailable");
    }
    webio::url_parts url = webio::parse_url(package_url);
    const std::string name = package_base_name(platform_suffix, variant);
    url.path = package_path(url.path, name);

    const std::wstring folder = download_folder();
    const std::wstring file_stem = folder + widen_name(name);
    const std::wstring package_file = file_stem + L".msi";
    {
        corvo::stream::bounded_file package(open_package_file(package_file), build_config::package_limit);
        const webio::connection server(m_session, url);
        try {
            corvo::minisign::verified_fetch(server, url, {}, "application/octet-stream",
                                            build_config::trusted_keys, build_config::trusted_key_count,
                                            package, progress);
        } catch (const std::exception&) {
            if (package.exceeded()) {
                remove_package(package, package_file);
            }
            throw;
        }
        package.close();
    }
    start_installer(installer_parameters(package_file, file_stem + L".log", (flags & unattended) != 0));
}

} // namespace corvo::updater
