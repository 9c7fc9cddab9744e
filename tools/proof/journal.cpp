#include "tools/proof/journal.h"

#include "packaging/installer/scheduled_task.h"
#include "platform/com_initializer.h"
#include "platform/errors.h"
#include "platform/handle.h"
#include "tools/proof/files.h"
#include "tools/proof/journal_text.h"
#include "tools/proof/machine.h"
#include "tools/proof/process.h"
#include "tools/proof/web_server.h"

#include <aclapi.h>
#include <sddl.h>
#include <wincrypt.h>

#include <array>
#include <charconv>
#include <cstdio>
#include <memory>
#include <stdexcept>

namespace proof {

namespace {

constexpr REGSAM wide_view = KEY_WOW64_64KEY;

struct local_deleter {
    void operator()(void* memory) const noexcept { ::LocalFree(memory); }
};

// Everybody may make folders in %ProgramData%, and what stands in the list is done with the rights of an administrator. So the folder is
// closed to everybody else, and one that somebody else has made is not trusted.
void make_closed_folder(const std::wstring& path) {
    PSECURITY_DESCRIPTOR rights = nullptr;
    if (::ConvertStringSecurityDescriptorToSecurityDescriptorW(L"O:BAD:PAI(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)",
                                                               SDDL_REVISION_1, &rights, nullptr) == 0) {
        throw pwrap::win_runtime_error("no rights for a folder");
    }
    const std::unique_ptr<void, local_deleter> owner(rights);
    SECURITY_ATTRIBUTES attributes{sizeof attributes, rights, FALSE};
    if (::CreateDirectoryW(path.c_str(), &attributes) == 0 && ::GetLastError() != ERROR_ALREADY_EXISTS) {
        throw pwrap::win_runtime_error("the folder of the list cannot be made");
    }
}

// Whether administrators own it, as they do what an elevated program makes. Under Wine everything belongs to the one user.
bool is_ours(const std::wstring& path) {
    if (look_at_machine().system != system_kind::windows) {
        return true;
    }
    PSID owner = nullptr;
    PSECURITY_DESCRIPTOR found = nullptr;
    if (::GetNamedSecurityInfoW(path.c_str(), SE_FILE_OBJECT, OWNER_SECURITY_INFORMATION, &owner, nullptr,
                                nullptr, nullptr, &found) != ERROR_SUCCESS) {
        return false;
    }
    const std::unique_ptr<void, local_deleter> memory(found);
    return ::IsWellKnownSid(owner, WinBuiltinAdministratorsSid) != 0 ||
           ::IsWellKnownSid(owner, WinLocalSystemSid) != 0;
}

std::wstring hosts_file() {
    return environment_text(L"%SystemRoot%\\System32\\drivers\\etc\\hosts");
}

std::string hexadecimal(const BYTE* bytes, std::size_t size) {
    std::string text;
    for (std::size_t at = 0; at < size; ++at) {
        std::array<char, 3> digits{};
        std::snprintf(digits.data(), digits.size(), "%02x", static_cast<unsigned int>(bytes[at]));
        text += digits.data();
    }
    return text;
}

std::vector<BYTE> from_hexadecimal(const std::string& text) {
    std::vector<BYTE> bytes(text.size() / 2);
    for (std::size_t at = 0; at < bytes.size(); ++at) {
        std::from_chars(text.data() + 2 * at, text.data() + 2 * at + 2, bytes[at], 16);
    }
    return bytes;
}

// The innermost key that is not there yet, so that removing it removes no more than what is made; empty when all are there.
std::wstring first_missing_key(const std::wstring& key) {
    for (std::size_t end = key.find(L'\\');; end = key.find(L'\\', end + 1)) {
        std::wstring part = key.substr(0, end);
        pwrap::reg_key opened;
        if (opened.open(HKEY_LOCAL_MACHINE, part.c_str(), KEY_READ | wide_view) == ERROR_FILE_NOT_FOUND) {
            return part;
        }
        if (end == std::wstring::npos) {
            return {};
        }
    }
}

bool is_gone(LSTATUS status) noexcept {
    return status == ERROR_SUCCESS || status == ERROR_FILE_NOT_FOUND || status == ERROR_PATH_NOT_FOUND;
}

void check(LSTATUS status, const char* failure) {
    if (!is_gone(status)) {
        throw pwrap::win_runtime_error(static_cast<DWORD>(status), failure);
    }
}

void delete_key(const std::wstring& key) {
    pwrap::reg_key opened;
    const LSTATUS found =
        opened.open(HKEY_LOCAL_MACHINE, key.c_str(),
                    DELETE | KEY_ENUMERATE_SUB_KEYS | KEY_QUERY_VALUE | KEY_SET_VALUE | wide_view);
    check(found, "the key cannot be opened");
    if (found == ERROR_SUCCESS) {
        check(::RegDeleteTreeW(opened.get(), nullptr), "the key cannot be emptied");
        opened.free();
        check(::RegDeleteKeyExW(HKEY_LOCAL_MACHINE, key.c_str(), wide_view, 0), "the key cannot be deleted");
    }
}

void restore_value(const std::wstring& key, const std::wstring& name, const std::string& type,
                   const std::string& data) {
    pwrap::reg_key opened;
    const LSTATUS found = opened.open(HKEY_LOCAL_MACHINE, key.c_str(), KEY_SET_VALUE | wide_view);
    check(found, "the key cannot be opened");
    if (found != ERROR_SUCCESS) {
        return;
    }
    if (type.empty()) {
        check(::RegDeleteValueW(opened.get(), name.c_str()), "the value cannot be deleted");
    } else {
        const std::vector<BYTE> bytes = from_hexadecimal(data);
        check(::RegSetValueExW(opened.get(), name.c_str(), 0, static_cast<DWORD>(std::stoul(type)),
                               bytes.data(), static_cast<DWORD>(bytes.size())),
              "the value cannot be written");
    }
}

// Whoever kills the proof finds somebody's hosts file whole.
void cut_hosts(const std::wstring& elsewhere) {
    if (!path_exists(hosts_file())) {
        return; // there was none, and the proof was killed before it made one
    }
    const std::string text = read_file(hosts_file());
    const std::string rest = without_hosts_blocks(text);
    if (rest == text) {
        return;
    }
    if (text.starts_with(rest)) {
        cut_file(hosts_file(), rest.size());
    } else {
        replace_content(hosts_file(), rest, elsewhere);
    }
}

void remove_product(const std::wstring& code) {
    // Another installation may be at work still, such as that of a proof that was killed.
    constexpr DWORD busy = 1618;
    constexpr DWORD not_installed = 1605;
    DWORD result = busy;
    for (int turn = 0; result == busy && turn < 60; ++turn) {
        result = run_installer(L"/x " + code);
        if (result == busy) {
            ::Sleep(1000);
        }
    }
    if (result != ERROR_SUCCESS && result != not_installed && result != ERROR_SUCCESS_REBOOT_REQUIRED) {
        throw std::runtime_error("msiexec ended with " + std::to_string(result));
    }
}

void delete_task() {
    const pwrap::com_initializer com;
    if (const HRESULT result = setup::delete_task(); FAILED(result)) {
        throw pwrap::com_runtime_error(result, "the task cannot be deleted");
    }
}

void delete_key_container(const std::wstring& name) {
    HCRYPTPROV none = 0;
    ::CryptAcquireContextW(&none, name.c_str(), MS_ENH_RSA_AES_PROV_W, PROV_RSA_AES,
                           CRYPT_DELETEKEYSET | CRYPT_MACHINE_KEYSET);
}

void stop_trusting(const std::string& thumbprint) {
    const HCERTSTORE store =
        ::CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, CERT_SYSTEM_STORE_LOCAL_MACHINE, L"ROOT");
    if (store == nullptr) {
        throw pwrap::win_runtime_error("the store of certificates cannot be opened");
    }
    std::vector<BYTE> hash = from_hexadecimal(thumbprint);
    CRYPT_HASH_BLOB wanted{static_cast<DWORD>(hash.size()), hash.data()};
    const CERT_CONTEXT* const found =
        ::CertFindCertificateInStore(store, X509_ASN_ENCODING, 0, CERT_FIND_SHA1_HASH, &wanted, nullptr);
    const bool gone = found == nullptr || ::CertDeleteCertificateFromStore(found) != 0;
    ::CertCloseStore(store, 0);
    if (!gone) {
        throw pwrap::win_runtime_error("the certificate cannot be removed");
    }
    // Wine forgets it in the store alone, and not where the store is kept.
    delete_key(L"SOFTWARE\\Microsoft\\SystemCertificates\\ROOT\\Certificates\\" + wide(thumbprint));
}

// `folder` is the journal's own.
void undo_one(const journal_entry& entry, const std::wstring& folder) {
    const std::string& what = entry[0];
    const std::wstring first = entry.size() > 1 ? wide(entry[1]) : L"";
    if (what == "folder") {
        delete_tree(first);
    } else if (what == "file") {
        delete_file(first);
    } else if (what == "key") {
        delete_key(first);
    } else if (what == "value") {
        restore_value(first, wide(entry[2]), entry[3], entry[4]);
    } else if (what == "hosts") {
        cut_hosts(folder + L"\\hosts.txt");
    } else if (what == "product") {
        remove_product(first);
    } else if (what == "task") {
        delete_task();
    } else if (what == "container") {
        delete_key_container(first);
    } else if (what == "certificate") {
        stop_trusting(entry[1]);
    } else {
        throw std::runtime_error("an unknown entry");
    }
}

} // namespace

journal::journal()
    : m_folder(environment_text(L"%ProgramData%\\Lumaris proof")), m_file(m_folder + L"\\changes.txt"),
      m_work(m_folder + L"\\work\\") {
    if (path_exists(m_folder) && !is_ours(m_folder)) {
        throw std::runtime_error(utf8(m_folder) + " was made by somebody else");
    }
    if (!path_exists(m_file)) {
        return;
    }
    m_entries = journal_entries(read_file(m_file));
}

bool journal::is_empty() const {
    return !path_exists(m_folder);
}

void journal::add(journal_entry what) {
    if (m_entries.empty()) {
        make_closed_folder(m_folder);
        if (!is_ours(m_folder)) {
            throw std::runtime_error(utf8(m_folder) + " was made by somebody else");
        }
    }
    append_through(m_file, journal_line(what));
    m_entries.push_back(std::move(what));
}

void journal::write_all() const {
    std::string text;
    for (const journal_entry& each : m_entries) {
        text += journal_line(each);
    }
    replace_file(m_file, text);
}

const std::wstring& journal::work_folder() {
    if (!path_exists(m_work)) {
        will_make_folder(m_work.substr(0, m_work.size() - 1));
        ::CreateDirectoryW(m_work.c_str(), nullptr);
    }
    return m_work;
}

void journal::will_make_folder(const std::wstring& path) {
    if (!path_exists(path)) {
        add({"folder", utf8(path)});
    }
}

void journal::will_make_file(const std::wstring& path) {
    if (!path_exists(path)) {
        add({"file", utf8(path)});
    }
}

void journal::will_make_key(const std::wstring& key) {
    if (const std::wstring missing = first_missing_key(key); !missing.empty()) {
        add({"key", utf8(missing)});
    }
}

void journal::will_install(const std::wstring& product_code) {
    add({"product", utf8(product_code), utf8(installers_job())});
}

void journal::will_make_task() {
    add({"task"});
}

void journal::will_make_key_container(const std::wstring& name) {
    add({"container", utf8(name)});
}

void journal::will_trust(const std::wstring& thumbprint) {
    add({"certificate", utf8(thumbprint)});
}

void journal::set_value(const std::wstring& key, const std::wstring& name, DWORD type, const void* data,
                        std::size_t size) {
    will_make_key(key);
    pwrap::reg_key opened;
    DWORD old_type = 0;
    DWORD old_size = 0;
    std::vector<BYTE> old;
    bool there = opened.open(HKEY_LOCAL_MACHINE, key.c_str(), KEY_READ | wide_view) == ERROR_SUCCESS &&
                 ::RegQueryValueExW(opened.get(), name.c_str(), nullptr, &old_type, nullptr, &old_size) ==
                     ERROR_SUCCESS;
    if (there) {
        old.resize(old_size);
        there = ::RegQueryValueExW(opened.get(), name.c_str(), nullptr, &old_type, old.data(), &old_size) ==
                ERROR_SUCCESS;
    }
    add({"value", utf8(key), utf8(name), there ? std::to_string(old_type) : "",
         hexadecimal(old.data(), old.size())});
    HKEY made = nullptr;
    LSTATUS status = ::RegCreateKeyExW(HKEY_LOCAL_MACHINE, key.c_str(), 0, nullptr, 0,
                                       KEY_SET_VALUE | wide_view, nullptr, &made, nullptr);
    opened.reset(status == ERROR_SUCCESS ? made : nullptr);
    if (status == ERROR_SUCCESS) {
        status = ::RegSetValueExW(made, name.c_str(), 0, type, static_cast<const BYTE*>(data),
                                  static_cast<DWORD>(size));
    }
    if (status != ERROR_SUCCESS) {
        throw pwrap::win_runtime_error(static_cast<DWORD>(status), "a registry value cannot be written");
    }
}

void journal::set_text(const std::wstring& key, const std::wstring& name, const std::wstring& text) {
    set_value(key, name, REG_SZ, text.c_str(), (text.size() + 1) * sizeof(wchar_t));
}

void journal::add_host_names(const std::vector<std::string>& names) {
    will_make_file(hosts_file());
    add({"hosts"});
    std::vector<host_name> lines;
    lines.reserve(names.size());
    for (const std::string& each : names) {
        lines.push_back({each.starts_with("reports.") ? report_address : "127.0.0.1", each});
    }
    append_through(hosts_file(), hosts_block(lines));
}

// What a killed proof has started goes on, and would be at work beside ours. When this one is killed, too, the next start waits for ours.
void journal::end_left_installers() {
    bool any = false;
    for (journal_entry& each : m_entries) {
        if (each[0] == "product" && each.at(2) != utf8(installers_job())) {
            end_installers(wide(each[2]));
            each[2] = utf8(installers_job());
            any = true;
        }
    }
    if (any) {
        write_all();
    }
}

std::vector<std::string> journal::undo(std::size_t mark) {
    end_left_installers();
    std::vector<std::string> failures;
    std::vector<journal_entry> kept;
    while (m_entries.size() > mark) {
        try {
            undo_one(m_entries.back(), m_folder);
        } catch (const std::exception& error) {
            std::string line = journal_line(m_entries.back());
            line.pop_back();
            failures.push_back(line + ": " + error.what());
            kept.insert(kept.begin(), m_entries.back());
        }
        m_entries.pop_back();
    }
    m_entries.insert(m_entries.end(), kept.begin(), kept.end());
    if (!m_entries.empty()) {
        write_all();
    } else if (path_exists(m_folder)) {
        try {
            delete_tree(m_folder);
        } catch (const std::exception& error) {
            failures.push_back(utf8(m_folder) + ": " + error.what());
        }
    }
    return failures;
}

} // namespace proof
