#include "tools/check/look.h"

#include "errorreport/system_description.h"
#include "errorreport/windows_version.h"
#include "http/request/connection.h"
#include "http/request/session.h"
#include "minisign/verified_fetch.h"
#include "packaging/installer/scheduled_task.h"
#include "platform/errors.h"
#include "platform/exception_message.h"
#include "platform/handle.h"
#include "platform/last_error.h"
#include "platform/registry.h"
#include "platform/temporary_folder.h"
#include "platform/text.h"
#include "stream/file.h"
#include "stream/limit_exceeded.h"
#include "tools/check/folder_rights.h"
#include "tools/check/installer_log.h"
#include "tools/check/task.h"
#include "tools/check/task_definition.h"
#include "updater/ask_network.h"
#include "updater/build_config.h"
#include "updater/installer.h"
#include "updater/run.h"
#include "updater/updater.h"
#include "updater/version.h"

#include <aclapi.h>
#include <knownfolders.h>
#include <sddl.h>
#include <shlobj.h>
#include <winhttp.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <exception>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <system_error>

namespace check {

using corvo::updater::ask_network;
using corvo::updater::gate;
using corvo::updater::installer_parameters;
using corvo::updater::is_plain_name;
using corvo::updater::own_version;
using corvo::updater::own_version_text;
using corvo::updater::package_base_name;
using corvo::updater::package_path;
using corvo::updater::run_failed;
using corvo::updater::Updater;
using corvo::updater::widen_name;

namespace {

constexpr wchar_t updater_key[] = L"SOFTWARE\\Tavrin\\Halvoro\\Lumaris";
constexpr wchar_t product_key[] = L"SOFTWARE\\Tavrin\\Halvoro";
constexpr wchar_t events_key[] = L"SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\HalvoroUpdate";
constexpr REGSAM for_reading = KEY_READ | KEY_WOW64_64KEY;

// A server that sends an error page sends less, and a package more.
constexpr std::uint64_t most_fetched = 65536;

// What a file's name may have, on every file system of Windows.
constexpr std::size_t longest_name = 255;

std::string utf8(const std::wstring& text) {
    std::string result;
    pwrap::wide_to_utf8(text, result);
    return result;
}

std::string hexadecimal(std::uint32_t value) {
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), "0x%08X", static_cast<unsigned int>(value));
    return text.data();
}

std::string version_text(std::uint32_t version) {
    return std::to_string(version >> 24) + "." + std::to_string(version >> 16 & 255) + "." +
           std::to_string(version >> 8 & 255);
}

bool read_value(const wchar_t* key_name, const wchar_t* name, std::wstring& value, LSTATUS& status) {
    pwrap::reg_key key;
    status = key.open(HKEY_LOCAL_MACHINE, key_name, for_reading);
    if (status == ERROR_SUCCESS) {
        status = pwrap::RegQueryStringValue(key.get(), name, value);
    }
    return status == ERROR_SUCCESS;
}

bool exists(const std::wstring& path) noexcept {
    return ::GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

// A file that is read from the disk and never written: what would be written is counted and forgotten. So the updater's own fetch can be
// made without its consequences. Where the disk has no `room` for it, writing fails as it would.
class untouched_file final : public corvo::stream::file {
public:
    untouched_file(std::uint64_t most, std::uint64_t room) noexcept : m_most(most), m_room(room) {}

    // Too much for a check that was not asked to fetch all of it.
    struct enough : corvo::stream::limit_exceeded {
        enough() : limit_exceeded("enough") {}
    };

    std::size_t write(const void* /*data*/, std::size_t length) override {
        m_taken += length;
        if (m_taken > m_most) {
            throw enough();
        }
        if (m_taken > corvo::build_config::package_limit) {
            throw std::runtime_error("package larger than " +
                                     std::to_string(corvo::build_config::package_limit) + " bytes");
        }
        if (m_taken > m_room) {
            corvo::set_last_error(ERROR_DISK_FULL);
            m_state = corvo::stream::state_t::fail;
            return 0;
        }
        m_state = corvo::stream::state_t::ok;
        return length;
    }
    void truncate() override {}
    corvo::stream::fpos seek(corvo::stream::foff offset, corvo::stream::seek_t how) override {
        if (valid()) {
            return file::seek(offset, how);
        }
        m_state = corvo::stream::state_t::ok; // a file that does not exist yet begins empty
        return 0;
    }

    bool fetched() const noexcept { return m_taken != 0; }

private:
    std::uint64_t m_most;
    std::uint64_t m_room;
    std::uint64_t m_taken = 0;
};

// Whether the check itself has broken off a fetch. A server's error page is not such a case, however long it is.
bool was_enough(const std::exception& error) {
    try {
        std::rethrow_if_nested(error);
    } catch (const untouched_file::enough&) {
        return true;
    } catch (const std::exception& cause) {
        return was_enough(cause);
    }
    return false;
}

void look_at_account(findings& found) {
    const corvo::errorreport::system_description& system = corvo::errorreport::running_system();
    const std::string who = utf8(system.user_name);
    if (system.elevated) {
        found.items.push_back({"account", state::good, who + ", elevated", ""});
    } else {
        found.items.push_back({"account", state::unknown, who + ", not elevated",
                               "Check again from a prompt that was started as administrator."});
    }
}

// False when the program would stop here.
bool look_at_network(findings& found) {
    pwrap::com_obj<INetworkListManager> manager;
    const gate gated = ask_network(manager);
    std::string text = "the network list manager cannot be asked; the updater takes that for a connection";
    VARIANT_BOOL connected = VARIANT_FALSE;
    if (manager && SUCCEEDED(manager->IsConnectedToInternet(&connected))) {
        text = connected != VARIANT_FALSE ? "connected" : "not connected";
        pwrap::com_obj<INetworkCostManager> costs;
        DWORD cost = 0;
        if (connected != VARIANT_FALSE && SUCCEEDED(costs.query(manager, IID_INetworkCostManager)) &&
            SUCCEEDED(costs->GetCost(&cost, nullptr))) {
            text += ", cost " + hexadecimal(cost);
        }
    }
    found.items.push_back({"network", gated == gate::open ? state::good : state::note, text, ""});
    found.next_run.exit_code = static_cast<std::uint32_t>(gated);
    return gated == gate::open;
}

void look_at_channel(findings& found) {
    std::wstring value;
    LSTATUS status = ERROR_SUCCESS;
    found.channel = "stable";
    if (!read_value(updater_key, L"Channel", value, status)) {
        const bool missing = status == ERROR_FILE_NOT_FOUND || status == ERROR_PATH_NOT_FOUND;
        found.items.push_back({"channel", state::note,
                               missing ? "stable, since there is no value Channel"
                                       : "stable, since the value Channel cannot be read",
                               ""});
    } else if (!is_plain_name(value)) {
        found.items.push_back(
            {"channel", state::problem,
             "the value Channel is \"" + utf8(value) + "\", which is ignored: stable",
             "A channel has no backslash, slash or question mark: correct the value Channel, or delete it."});
    } else if (value.empty()) {
        found.updates_off = true;
        found.items.push_back({"channel", state::note, "empty: updates are switched off", ""});
    } else {
        found.channel = utf8(value);
        found.items.push_back({"channel", state::good, found.channel + ", from the registry", ""});
    }
}

struct global_memory_deleter {
    void operator()(wchar_t* memory) const noexcept { ::GlobalFree(memory); }
};

void look_at_proxy(findings& found) {
    WINHTTP_PROXY_INFO proxy{};
    std::string text = "none";
    if (::WinHttpGetDefaultProxyConfiguration(&proxy) != 0) {
        const std::unique_ptr<wchar_t, global_memory_deleter> server(proxy.lpszProxy);
        const std::unique_ptr<wchar_t, global_memory_deleter> bypass(proxy.lpszProxyBypass);
        if (server && proxy.dwAccessType == WINHTTP_ACCESS_TYPE_NAMED_PROXY) {
            text = utf8(server.get());
        }
    }
    std::wstring value;
    LSTATUS status = ERROR_SUCCESS;
    text += read_value(product_key, L"ProxyUporabnik", value, status) ? ", user name set" : ", no user name";
    const bool password = read_value(product_key, L"ProxyGeslo", value, status);
    ::SecureZeroMemory(value.data(), value.size() * sizeof(wchar_t));
    text += password                        ? ", password set"
            : status == ERROR_ACCESS_DENIED ? ", password not readable"
                                            : ", no password";
    found.items.push_back({"proxy", state::note, text, ""});
}

struct local_memory_deleter {
    void operator()(void* memory) const noexcept { ::LocalFree(memory); }
};

std::wstring common_folder() {
    wchar_t* path = nullptr;
    const HRESULT result =
        ::SHGetKnownFolderPath(FOLDERID_ProgramFilesCommon, KF_FLAG_DONT_VERIFY, nullptr, &path);
    std::wstring folder = SUCCEEDED(result) ? path : L"";
    ::CoTaskMemFree(path);
    if (!folder.empty() && !folder.ends_with(L'\\')) {
        folder += L'\\';
    }
    return folder;
}

// Where the updater would put its package; without making anything.
std::wstring store_folder() {
    return corvo::errorreport::running_system().elevated ? common_folder() + L"Tavrin\\Lumaris\\"
                                                         : pwrap::temporary_folder();
}

// Whether a folder could take a new file or folder: asks for the right without using it.
bool can_add(const std::wstring& folder, DWORD right) noexcept {
    const pwrap::win_handle<-1> opened(
        ::CreateFileW(folder.c_str(), right, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                      OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
    return static_cast<bool>(opened);
}

// Throws what making `folder` would throw. Whether it is there already.
bool look_for_folder(const std::wstring& above, const std::wstring& folder, const char* failure) {
    if (exists(folder)) {
        return true;
    }
    const DWORD error = ::GetLastError();
    if (error != ERROR_FILE_NOT_FOUND) {
        throw pwrap::win_runtime_error(error, failure);
    }
    if (!can_add(above, FILE_ADD_SUBDIRECTORY)) {
        pwrap::throw_last<pwrap::win_runtime_error>(failure);
    }
    return false;
}

// Where the updater would put its package, as far as it is there.
struct store {
    std::wstring folder;  // with its final backslash
    std::wstring nearest; // the folder, or the innermost one above it that is there
    bool is_there = true;
};

// Throws what the updater's own choice of a folder would throw, and makes nothing.
store look_for_store() {
    if (!corvo::errorreport::running_system().elevated) {
        const std::wstring folder = pwrap::temporary_folder();
        return {folder, folder};
    }
    const std::wstring common = common_folder();
    const std::wstring maker = common + L"Tavrin\\";
    const std::wstring folder = maker + L"Lumaris\\";
    if (!look_for_folder(common, common + L"Tavrin", "Failed to create Common subfolder Tavrin")) {
        return {folder, common, false};
    }
    if (!look_for_folder(maker, maker + L"Lumaris", "Failed to create Common\\Tavrin subfolder Lumaris")) {
        return {folder, maker, false};
    }
    return {folder, folder};
}

// Throws what opening the package would throw. Opening it for writing changes nothing as long as nothing is written.
void open_as_the_updater_does(const store& place, const std::wstring& name) {
    // A name that no file can have is refused in any folder, before it is looked for.
    const pwrap::win_handle<-1> opened(::CreateFileW((place.nearest + name).c_str(),
                                                     GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                                                     OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    DWORD error = opened ? ERROR_SUCCESS : ::GetLastError();
    if (!place.is_there && error != ERROR_FILE_NOT_FOUND && error != ERROR_INVALID_NAME) {
        return; // another file of that name, in a folder that is not the updater's
    }
    if (error == ERROR_FILE_NOT_FOUND && name.size() <= longest_name) {
        error = !place.is_there || can_add(place.folder, FILE_ADD_FILE) ? ERROR_SUCCESS : ::GetLastError();
    }
    if (error != ERROR_SUCCESS) {
        throw std::system_error(static_cast<int>(error), std::system_category(), "Failed to open file");
    }
}

// How large a package the disk can take in the place of the present one: what is free, and the whole clusters that this one has.
std::uint64_t room_for(const store& place, const std::wstring& package_file) noexcept {
    ULARGE_INTEGER available{};
    DWORD sectors = 0;
    DWORD bytes = 0;
    DWORD free_clusters = 0;
    DWORD clusters = 0;
    WIN32_FILE_ATTRIBUTE_DATA present{};
    if (::GetDiskFreeSpaceExW(place.nearest.c_str(), &available, nullptr, nullptr) == 0) {
        return ~std::uint64_t{0};
    }
    if (::GetFileAttributesExW(package_file.c_str(), GetFileExInfoStandard, &present) == 0 ||
        ::GetDiskFreeSpaceW(place.nearest.c_str(), &sectors, &bytes, &free_clusters, &clusters) == 0) {
        return available.QuadPart;
    }
    const std::uint64_t size = std::uint64_t{present.nFileSizeHigh} << 32U | present.nFileSizeLow;
    const std::uint64_t cluster = std::max<std::uint64_t>(std::uint64_t{sectors} * bytes, 1);
    return available.QuadPart + (size + cluster - 1) / cluster * cluster;
}

void look_at_package(findings& found, const Updater& updater, const wish& wanted) {
    if (updater.package_url.empty()) {
        throw std::invalid_argument("update URL unavailable");
    }
    webio::url_parts url = webio::parse_url(updater.package_url);
    const std::string variant =
        is_plain_name(wanted.variant) ? pwrap::narrow_user_text(::GetACP(), wanted.variant) : std::string();
    const std::string name = package_base_name(updater.platform_suffix, variant);
    url.path = package_path(url.path, name);
    const store place = look_for_store();
    const std::wstring file_name = widen_name(name);
    const std::wstring package_file = place.folder + file_name + L".msi";
    open_as_the_updater_does(place, file_name + L".msi");

    untouched_file content(wanted.whole_package ? ~std::uint64_t{0} : most_fetched,
                           room_for(place, package_file));
    content.open(package_file.c_str(), corvo::stream::mode_for_reading | corvo::stream::mode_open_existing |
                                           corvo::stream::share_reading | corvo::stream::share_writing |
                                           corvo::stream::share_deleting);
    const webio::session session(std::string("Lumaris/") + own_version_text,
                                 {.resolve = 5000, .connect = 10000, .send = 30000, .receive = 30000});
    const webio::connection server(session, url);
    bool stopped = false;
    try {
        corvo::minisign::verified_fetch(server, url, {}, "application/octet-stream",
                                        corvo::build_config::trusted_keys,
                                        corvo::build_config::trusted_key_count, content, nullptr);
    } catch (const std::exception& error) {
        if (!was_enough(error)) {
            throw;
        }
        stopped = true;
        found.next_run.known = false;
    }
    const char* const where = !content.fetched() ? "on the disk and verified"
                              : stopped
                                  ? "on the server, larger than this check fetches (--download verifies it)"
                                  : "on the server and verified";
    found.items.push_back({"package", state::good, name + ".msi is " + where, ""});
    installer_parameters(package_file, place.folder + file_name + L".log",
                         true); // refuses what cannot be handed over
    found.next_run.installs = !stopped;
}

// Description, offer and package: what the updater does after the network gate, with the same code and so with the same messages.
void look_at_offer(findings& found, const wish& wanted) {
    const char* what = "description";
    try {
        const Updater updater(Updater::unattended);
        if (found.updates_off) {
            return;
        }
        found.items.push_back(
            {"description", state::good,
             std::string("fetched from ") + corvo::build_config::update_host + ", its signature holds", ""});
        what = "package";
        if (updater.version <= own_version) {
            found.items.push_back(
                {"offer", state::good, version_text(updater.version) + ", nothing newer", ""});
            return;
        }
        found.offered_version = version_text(updater.version);
        found.items.push_back({"offer", state::good, found.offered_version, ""});
        look_at_package(found, updater, wanted);
    } catch (const std::exception& error) {
        found.next_run.message = corvo::exception_message(error);
        found.next_run.exit_code = run_failed;
        found.items.push_back(
            {what, state::problem, found.next_run.message, advice_for(found.next_run.message)});
    }
}

std::string sid_text(PSID sid) {
    wchar_t* text = nullptr;
    if (sid == nullptr || ::ConvertSidToStringSidW(sid, &text) == 0) {
        return {};
    }
    const std::unique_ptr<wchar_t, local_memory_deleter> owner(text);
    return utf8(text);
}

// "Everyone" for "S-1-1-0", in the system's language; the identifier when it has no name.
std::string account_name(const std::string& sid) {
    PSID binary = nullptr;
    if (::ConvertStringSidToSidW(std::wstring(sid.begin(), sid.end()).c_str(), &binary) == 0) {
        return sid;
    }
    const std::unique_ptr<void, local_memory_deleter> owner(binary);
    std::array<wchar_t, 257> name{};
    std::array<wchar_t, 257> domain{};
    auto name_size = static_cast<DWORD>(name.size());
    auto domain_size = static_cast<DWORD>(domain.size());
    SID_NAME_USE use{};
    return ::LookupAccountSidW(nullptr, binary, name.data(), &name_size, domain.data(), &domain_size, &use) !=
                   0
               ? utf8(name.data())
               : sid;
}

std::string own_sid() {
    HANDLE opened = nullptr;
    if (::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, &opened) == 0) {
        return {};
    }
    const pwrap::win_handle<0> token(opened);
    alignas(TOKEN_USER) std::array<unsigned char, sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE> user{};
    DWORD size = 0;
    return ::GetTokenInformation(token.get(), TokenUser, user.data(), static_cast<DWORD>(user.size()),
                                 &size) != 0
               ? sid_text(reinterpret_cast<TOKEN_USER*>(user.data())->User.Sid)
               : std::string();
}

// Throws std::system_error when the rights cannot be read.
folder_rights read_rights(const std::wstring& folder) {
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    PSID owner = nullptr;
    ACL* list = nullptr;
    const DWORD error = ::GetNamedSecurityInfoW(folder.c_str(), SE_FILE_OBJECT,
                                                OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION,
                                                &owner, nullptr, &list, nullptr, &descriptor);
    if (error != ERROR_SUCCESS) {
        throw std::system_error(static_cast<int>(error), std::system_category(), "the rights cannot be read");
    }
    const std::unique_ptr<void, local_memory_deleter> memory(descriptor);
    folder_rights rights;
    rights.owner = sid_text(owner);
    rights.everything_to_everybody = list == nullptr;
    void* entry = nullptr;
    for (DWORD at = 0; list != nullptr && ::GetAce(list, at, &entry) != 0; ++at) {
        auto* const allowed = static_cast<ACCESS_ALLOWED_ACE*>(entry);
        if (allowed->Header.AceType == ACCESS_ALLOWED_ACE_TYPE) {
            rights.allowed.push_back(
                {sid_text(&allowed->SidStart), static_cast<std::uint32_t>(allowed->Mask)});
        }
    }
    return rights;
}

// Who but administrators and SYSTEM may exchange what is in the folder; names, separated by commas.
std::string others_who_may_write_in(const std::wstring& folder) {
    std::string names;
    for (const std::string& who : others_who_may_write(read_rights(folder), own_sid())) {
        names += (names.empty() ? "" : ", ") + account_name(who);
    }
    return names;
}

void look_at_folder(findings& found) {
    const std::wstring folder = store_folder();
    const std::wstring bare = folder.substr(0, folder.size() - 1);
    const bool elevated = corvo::errorreport::running_system().elevated;
    if (!exists(bare)) {
        found.items.push_back({"folder", state::note, utf8(bare) + " does not exist yet", ""});
        return;
    }
    if (!can_add(bare, FILE_ADD_FILE)) {
        found.items.push_back(
            elevated ? finding{"folder", state::problem, utf8(bare) + " cannot be written",
                               "Give SYSTEM and administrators full access to the folder."}
                     : finding{"folder", state::note, utf8(bare) + " cannot be written by this account", ""});
        return;
    }
    if (!elevated) {
        found.items.push_back({"folder", state::good, utf8(bare) + " can be written", ""});
        return;
    }
    // Who may write in the maker's folder may put another one in the place of the folder for packages.
    for (const std::wstring& each : {bare, bare.substr(0, bare.rfind(L'\\'))}) {
        const std::string others = others_who_may_write_in(each);
        if (!others.empty()) {
            found.items.push_back(
                {"folder", state::problem,
                 utf8(each) + " can be written by " + others +
                     ", who could exchange a package between its verification and its installation",
                 "Take that right away, so that only SYSTEM and administrators write there."});
            return;
        }
    }
    found.items.push_back(
        {"folder", state::good, utf8(bare) + " can be written by SYSTEM and administrators alone", ""});
}

void look_at_events(findings& found) {
    std::wstring value;
    LSTATUS status = ERROR_SUCCESS;
    if (!read_value(events_key, L"EventMessageFile", value, status)) {
        found.items.push_back(
            {"event source", state::problem, "the event source HalvoroUpdate is not registered",
             "Repair the installation: msiexec /i PACKAGE /qn REINSTALL=ALL REINSTALLMODE=vomus."});
    } else if (!exists(value)) {
        found.items.push_back({"event source", state::problem,
                               "the event source names " + utf8(value) + ", which does not exist",
                               "Repair the installation: events show no text."});
    } else {
        found.items.push_back({"event source", state::good, "HalvoroUpdate, texts in " + utf8(value), ""});
    }
}

// An OLE automation date: days since 1899-12-30 in local time. Of this moment when there is no `time`.
double local_date(const FILETIME* time) noexcept {
    FILETIME now{};
    ::GetSystemTimeAsFileTime(&now);
    FILETIME local{};
    if (::FileTimeToLocalFileTime(time != nullptr ? time : &now, &local) == 0) {
        return 0;
    }
    constexpr std::uint64_t ticks_a_day = 864000000000;
    constexpr double days_from_1601 = 109205;
    const std::uint64_t ticks = std::uint64_t{local.dwHighDateTime} << 32U | local.dwLowDateTime;
    return static_cast<double>(ticks) / static_cast<double>(ticks_a_day) - days_from_1601;
}

// As the Task Scheduler looks for it: a name without a folder in the folders of programs, too.
bool finds_program(const std::wstring& command) noexcept {
    return exists(command) || (command.find_first_of(L"\\/") == std::wstring::npos &&
                               ::SearchPathW(nullptr, command.c_str(), L".exe", 0, nullptr, nullptr) != 0);
}

void look_at_task(findings& found) {
    const char* const repair = "Repair the installation: msiexec /i PACKAGE /qn REINSTALL=ALL "
                               "REINSTALLMODE=vomus makes the task again.";
    std::wstring xml;
    const HRESULT result = setup::read_task(xml);
    if (FAILED(result)) {
        std::wstring no_task;
        LSTATUS status = ERROR_SUCCESS;
        if (read_value(updater_key, L"NoTask", no_task, status) && no_task == L"1") {
            found.items.push_back({"task", state::note, "none, as the installer was asked", ""});
        } else if (result == HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND) ||
                   result == HRESULT_FROM_WIN32(ERROR_PATH_NOT_FOUND)) {
            found.items.push_back(
                {"task", state::problem,
                 "there is no scheduled task \\Tavrin\\Halvoro update: nothing starts the updater", repair});
        } else {
            found.items.push_back(
                {"task", state::unknown,
                 "the task cannot be read (" + hexadecimal(static_cast<std::uint32_t>(result)) + ")",
                 "Check again from a prompt that was started as administrator."});
        }
        return;
    }
    const std::optional<task_definition> definition = read_definition(xml);
    if (!definition) {
        found.items.push_back({"task", state::unknown, "the definition of the task cannot be understood",
                               "Look at the task in the Task Scheduler."});
        return;
    }
    setup::task_state scheduled;
    const HRESULT asked = setup::read_task_state(scheduled);
    if (FAILED(asked)) {
        found.items.push_back(
            {"task", state::unknown,
             "the state of the task cannot be read (" + hexadecimal(static_cast<std::uint32_t>(asked)) + ")",
             "Check again from a prompt that was started as administrator."});
        return;
    }
    const std::wstring command = looked_for(definition->command);
    task_facts task;
    task.enabled = scheduled.enabled;
    task.starts_on_battery = definition->starts_on_battery;
    task.starts_at_events = definition->starts_at_events;
    task.command = utf8(command);
    task.command_exists = command.empty() || finds_program(command);
    task.last_result = scheduled.last_result;
    task.last_run = scheduled.last_run;
    task.next_run = scheduled.next_run;
    task.now = local_date(nullptr);
    judge_task(found, task);
}

std::string whole_text(const std::wstring& path) {
    corvo::stream::file file(path.c_str(), corvo::stream::mode_for_reading |
                                               corvo::stream::mode_open_existing |
                                               corvo::stream::share_reading | corvo::stream::share_writing |
                                               corvo::stream::share_deleting);
    std::string bytes;
    std::array<char, 8192> block{};
    while (const std::size_t taken = file.read(block.data(), block.size())) {
        bytes.append(block.data(), taken);
    }
    if (bytes.size() >= 2 && bytes[0] == '\xFF' && bytes[1] == '\xFE') {
        std::wstring wide;
        for (std::size_t at = 2; at + 1 < bytes.size(); at += 2) {
            wide += static_cast<wchar_t>(static_cast<unsigned char>(bytes[at]) |
                                         static_cast<unsigned char>(bytes[at + 1]) << 8);
        }
        return utf8(wide);
    }
    return bytes;
}

void look_at_log(findings& found, const wish& wanted) {
    const std::string variant =
        is_plain_name(wanted.variant) ? pwrap::narrow_user_text(::GetACP(), wanted.variant) : std::string();
    const std::wstring path = store_folder() + widen_name(package_base_name(".ARM64", variant)) + L".log";
    WIN32_FILE_ATTRIBUTE_DATA log{};
    if (::GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &log) == 0) {
        found.items.push_back(
            {"installer log", state::note, "none: the updater has started no installer yet", ""});
        return;
    }
    found.items.push_back(
        judge_log(whole_text(path), date_text(local_date(&log.ftLastWriteTime)), utf8(path)));
}

int count_files(const std::wstring& pattern) {
    WIN32_FIND_DATAW each;
    const pwrap::find_file search(::FindFirstFileW(pattern.c_str(), &each));
    int count = search ? 1 : 0;
    while (search && ::FindNextFileW(search.get(), &each) != 0) {
        ++count;
    }
    return count;
}

void look_at_reports(findings& found) {
    std::array<wchar_t, MAX_PATH> windows{};
    ::GetWindowsDirectoryW(windows.data(), static_cast<UINT>(windows.size()));
    // SYSTEM's, for which the task runs, and that of this account.
    const std::wstring system_folder = std::wstring(windows.data()) + L"\\Temp\\";
    const std::wstring own_folder = pwrap::temporary_folder();
    int count = count_files(system_folder + L"*.tzo");
    if (own_folder != system_folder) {
        count += count_files(own_folder + L"*.tzo");
    }
    found.items.push_back({"reports", state::note,
                           count == 0 ? "no crash report waits"
                                      : std::to_string(count) + " crash reports wait for the next start",
                           ""});
}

} // namespace

findings look_at_machine(const wish& wanted) {
    findings found;
    found.own_version = own_version_text;
    const auto look = [&](const char* name, auto&& at) {
        try {
            at();
        } catch (const std::exception& error) {
            found.items.push_back(
                {name, state::unknown,
                 std::string(name) + " cannot be looked at: " + corvo::exception_message(error),
                 "Check again from a prompt that was started as administrator."});
        }
    };
    bool open = false;
    look("account", [&] { look_at_account(found); });
    look("network", [&] { open = look_at_network(found); });
    look("Windows", [&] {
        const char* const windows = corvo::errorreport::running_windows_version();
        found.items.push_back(
            {"Windows", windows != nullptr ? state::good : state::note,
             windows != nullptr ? windows : "no name of its own in the description's address", ""});
    });
    look("channel", [&] { look_at_channel(found); });
    look("proxy", [&] { look_at_proxy(found); });
    if (open) {
        look_at_offer(found, wanted);
    }
    look("folder", [&] { look_at_folder(found); });
    look("event source", [&] { look_at_events(found); });
    look("task", [&] { look_at_task(found); });
    look("installer log", [&] { look_at_log(found, wanted); });
    look("reports", [&] { look_at_reports(found); });
    return found;
}

} // namespace check
