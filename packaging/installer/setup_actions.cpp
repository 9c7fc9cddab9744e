// The installer's custom actions: the scheduled task, settings given to the installer, and what removal takes beyond what Windows Installer removes by
// itself. Windows Installer loads this library and calls one function an action; all but check_properties run as SYSTEM, with what they need to know
// in one property. Each says in the installer's log what it did; none shows anything.

#include "packaging/installer/scheduled_task.h"
#include "platform/handle.h"

#include <msi.h>
#include <msiquery.h>
#include <sddl.h>

#include <aclapi.h>

#include <array>
#include <cstdio>
#include <exception>
#include <string>

namespace {

constexpr wchar_t product_key[] = L"SOFTWARE\\Tavrin\\Halvoro";
constexpr wchar_t maker_key[] = L"SOFTWARE\\Tavrin";
constexpr wchar_t updater_key[] = L"SOFTWARE\\Tavrin\\Halvoro\\Lumaris";
constexpr wchar_t password_value[] = L"ProxyGeslo";
constexpr wchar_t user_value[] = L"ProxyUporabnik";

// The rights of the key that holds the password: SYSTEM and administrators everything; users and app containers nothing in the key itself, and
// reading in the keys below it (IO: the entry is for those alone), where Halvoro keeps what its users need.
constexpr wchar_t private_key_rights[] = L"D:PAI(A;CI;KA;;;SY)(A;CI;KA;;;BA)(A;CIIO;KR;;;BU)(A;CIIO;KR;;;AC)";

constexpr REGSAM whole_view = KEY_WOW64_64KEY;

std::wstring property(MSIHANDLE install, const wchar_t* name) {
    std::wstring value;
    DWORD length = 0;
    wchar_t none[1] = {};
    if (::MsiGetPropertyW(install, name, none, &length) == ERROR_MORE_DATA) {
        value.resize(++length);
        if (::MsiGetPropertyW(install, name, value.data(), &length) != ERROR_SUCCESS) {
            length = 0;
        }
        value.resize(length);
    }
    return value;
}

void say(MSIHANDLE install, INSTALLMESSAGE kind, const std::wstring& text) noexcept {
    const MSIHANDLE record = ::MsiCreateRecord(1);
    ::MsiRecordSetStringW(record, 0, L"Lumaris: [1]");
    ::MsiRecordSetStringW(record, 1, text.c_str());
    ::MsiProcessMessage(install, kind, record);
    ::MsiCloseHandle(record);
}

std::wstring number(const wchar_t* what, long code) {
    std::array<wchar_t, 160> text{};
    std::swprintf(text.data(), text.size(), L"%ls (0x%08lX)", what, static_cast<unsigned long>(code));
    return text.data();
}

// Fields of an action's data, which a semicolon separates: paths and times have none.
std::wstring take_field(std::wstring& data) {
    const std::size_t end = data.find(L';');
    std::wstring field = data.substr(0, end);
    data.erase(0, end == std::wstring::npos ? data.size() : end + 1);
    return field;
}

// The task's model as it stands in packaging/installer/task.xml, which is ASCII.
std::wstring task_model() {
    HMODULE own = nullptr;
    ::GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS |
                             GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                         reinterpret_cast<const wchar_t*>(&task_model), &own);
    HRSRC place = ::FindResourceW(own, MAKEINTRESOURCEW(1), MAKEINTRESOURCEW(10)); // RT_RCDATA
    if (place == nullptr) {
        return {};
    }
    const auto* text = static_cast<const char*>(::LockResource(::LoadResource(own, place)));
    return {text, text + ::SizeofResource(own, place)};
}

// COM for the time of one action.
class com {
public:
    com() noexcept : m_result(::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED)) {}
    com(const com&) = delete;
    com& operator=(const com&) = delete;
    ~com() {
        if (SUCCEEDED(m_result)) {
            ::CoUninitialize();
        }
    }

private:
    HRESULT m_result;
};

// Runs an action; nothing may leave it as an exception.
template <class Action> UINT perform(MSIHANDLE install, Action action) noexcept {
    try {
        const com initialised;
        return action();
    } catch (const std::exception&) {
        say(install, INSTALLMESSAGE_INFO, L"out of memory");
        return ERROR_INSTALL_FAILURE;
    }
}

void delete_files(MSIHANDLE install, const std::wstring& folder, const wchar_t* pattern) {
    WIN32_FIND_DATAW found;
    const pwrap::find_file search(::FindFirstFileW((folder + pattern).c_str(), &found));
    if (!search) {
        return;
    }
    do {
        if ((found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
            continue;
        }
        const std::wstring path = folder + found.cFileName;
        if ((found.dwFileAttributes & FILE_ATTRIBUTE_READONLY) != 0) {
            ::SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL);
        }
        const bool deleted = ::DeleteFileW(path.c_str()) != 0;
        const DWORD error = ::GetLastError(); // before the text is made
        say(install, INSTALLMESSAGE_INFO,
            deleted ? L"deleted " + path
                    : number((L"could not delete " + path).c_str(), static_cast<long>(error)));
    } while (::FindNextFileW(search.get(), &found) != 0);
}

void delete_key_if_empty(const wchar_t* name) noexcept {
    DWORD keys = 1;
    DWORD values = 1;
    {
        pwrap::reg_key key;
        if (key.open(HKEY_LOCAL_MACHINE, name, KEY_READ | whole_view) != ERROR_SUCCESS ||
            ::RegQueryInfoKeyW(key.get(), nullptr, nullptr, nullptr, &keys, nullptr, nullptr, &values,
                               nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS) {
            return;
        }
    }
    if (keys == 0 && values == 0) {
        ::RegDeleteKeyExW(HKEY_LOCAL_MACHINE, name, whole_view, 0);
    }
}

// Undoes what write_password did to the rights of the key: those of the key above it hold again, and are inherited again.
void inherit_rights_again(HKEY key) noexcept {
    pwrap::reg_key above;
    PSECURITY_DESCRIPTOR owner = nullptr;
    ACL* rights = nullptr;
    if (above.open(HKEY_LOCAL_MACHINE, maker_key, READ_CONTROL | whole_view) == ERROR_SUCCESS &&
        ::GetSecurityInfo(above.get(), SE_REGISTRY_KEY, DACL_SECURITY_INFORMATION, nullptr, nullptr, &rights,
                          nullptr, &owner) == ERROR_SUCCESS) {
        ::SetSecurityInfo(key, SE_REGISTRY_KEY,
                          DACL_SECURITY_INFORMATION | UNPROTECTED_DACL_SECURITY_INFORMATION, nullptr, nullptr,
                          rights, nullptr);
        ::LocalFree(owner);
    }
}

// Settings go with the program: a password that nobody uses must not remain.
void delete_settings() noexcept {
    pwrap::reg_key key;
    if (key.open(HKEY_LOCAL_MACHINE, product_key, KEY_READ | KEY_WRITE | WRITE_DAC | whole_view) !=
        ERROR_SUCCESS) {
        return;
    }
    ::RegDeleteValueW(key.get(), user_value);
    if (::RegDeleteValueW(key.get(), password_value) == ERROR_SUCCESS) {
        inherit_rights_again(key.get());
    }
    ::RegDeleteTreeW(key.get(), L"Lumaris");
    key.free();
    delete_key_if_empty(product_key);
    delete_key_if_empty(maker_key);
}

LSTATUS write_value(HKEY key, const wchar_t* name, const std::wstring& value) noexcept {
    return ::RegSetValueExW(key, name, 0, REG_SZ, reinterpret_cast<const BYTE*>(value.c_str()),
                            static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t)));
}

LSTATUS create_key(const wchar_t* name, pwrap::reg_key& key) noexcept {
    HKEY made = nullptr;
    const LSTATUS status =
        ::RegCreateKeyExW(HKEY_LOCAL_MACHINE, name, 0, nullptr, 0,
                          KEY_READ | KEY_WRITE | WRITE_DAC | whole_view, nullptr, &made, nullptr);
    key.reset(status == ERROR_SUCCESS ? made : nullptr);
    return status;
}

LSTATUS write_setting(const wchar_t* key_name, const wchar_t* name, const std::wstring& value) {
    pwrap::reg_key key;
    const LSTATUS status = value.empty() ? ERROR_SUCCESS : create_key(key_name, key);
    return value.empty() || status != ERROR_SUCCESS ? status : write_value(key.get(), name, value);
}

// The key gets its rights before the password, so that there is no moment in which others can read it.
LSTATUS write_password(const std::wstring& password) {
    pwrap::reg_key key;
    LSTATUS status = password.empty() ? ERROR_SUCCESS : create_key(product_key, key);
    if (password.empty() || status != ERROR_SUCCESS) {
        return status;
    }
    PSECURITY_DESCRIPTOR rights = nullptr;
    if (::ConvertStringSecurityDescriptorToSecurityDescriptorW(private_key_rights, SDDL_REVISION_1, &rights,
                                                               nullptr) == 0) {
        return static_cast<LSTATUS>(::GetLastError());
    }
    status = ::RegSetKeySecurity(key.get(), DACL_SECURITY_INFORMATION | PROTECTED_DACL_SECURITY_INFORMATION,
                                 rights);
    ::LocalFree(rights);
    return status == ERROR_SUCCESS ? write_value(key.get(), password_value, password) : status;
}

} // namespace

extern "C" {

// Refuses properties that could not be used, before anything is changed.
__declspec(dllexport) UINT __stdcall check_properties(MSIHANDLE install) {
    return perform(install, [&]() -> UINT {
        const std::wstring time = property(install, L"TASKTIME");
        if (!setup::is_time_of_day(time)) {
            say(install, INSTALLMESSAGE_ERROR,
                L"TASKTIME is \"" + time + L"\"; it must be a time of day such as 07:05");
            return ERROR_INSTALL_FAILURE;
        }
        // As the program sees it: a channel with one of these is ignored. The semicolon separates the fields of store_settings.
        const std::wstring channel = property(install, L"CHANNEL");
        if (channel.find_first_of(L"\\/?;") != std::wstring::npos) {
            say(install, INSTALLMESSAGE_ERROR,
                L"CHANNEL is \"" + channel +
                    L"\"; a channel has no backslash, slash, question mark or semicolon");
            return ERROR_INSTALL_FAILURE;
        }
        if (property(install, L"PROXYUSER").find(L';') != std::wstring::npos) {
            say(install, INSTALLMESSAGE_ERROR, L"PROXYUSER must not hold a semicolon");
            return ERROR_INSTALL_FAILURE;
        }
        return ERROR_SUCCESS;
    });
}

// Data: TIME;MARK;PROGRAM.
__declspec(dllexport) UINT __stdcall make_task(MSIHANDLE install) {
    return perform(install, [&]() -> UINT {
        std::wstring data = property(install, L"CustomActionData");
        const std::wstring time = take_field(data);
        const std::wstring mark = take_field(data);
        const std::wstring xml = setup::task_xml(task_model(), time, data, mark);
        const HRESULT result =
            xml.empty() || !setup::is_time_of_day(time) ? E_INVALIDARG : setup::create_task(xml);
        if (FAILED(result)) {
            say(install, INSTALLMESSAGE_ERROR, number(L"the scheduled task could not be made", result));
            return ERROR_INSTALL_FAILURE;
        }
        say(install, INSTALLMESSAGE_INFO,
            result == S_OK ? L"made the scheduled task\n" + xml : L"kept the scheduled task that was there");
        return ERROR_SUCCESS;
    });
}

// The way back from make_task: removes the task that this very installation has made, and no other. Data: MARK.
__declspec(dllexport) UINT __stdcall unmake_task(MSIHANDLE install) {
    return perform(install, [&]() -> UINT {
        const std::wstring mark = property(install, L"CustomActionData");
        std::wstring xml;
        if (!mark.empty() && SUCCEEDED(setup::read_task(xml)) &&
            xml.find(L"<Source>" + mark + L"</Source>") != std::wstring::npos) {
            say(install, INSTALLMESSAGE_INFO, number(L"took the scheduled task back", setup::delete_task()));
        }
        return ERROR_SUCCESS;
    });
}

// Writes the settings that were given; those that were not remain as they are, so that an upgrade, which the updater starts without any, keeps
// them. That is why no component of the package holds them. Data: NOTASK;CHANNEL;USER;PASSWORD.
__declspec(dllexport) UINT __stdcall store_settings(MSIHANDLE install) {
    return perform(install, [&]() -> UINT {
        std::wstring data = property(install, L"CustomActionData");
        LSTATUS status = write_setting(updater_key, L"NoTask", take_field(data));
        if (status == ERROR_SUCCESS) {
            status = write_setting(updater_key, L"Channel", take_field(data));
        }
        if (status == ERROR_SUCCESS) {
            status = write_setting(product_key, user_value, take_field(data));
        }
        if (status == ERROR_SUCCESS) {
            status = write_password(data);
        }
        ::SecureZeroMemory(data.data(), data.size() * sizeof(wchar_t));
        if (status != ERROR_SUCCESS) {
            say(install, INSTALLMESSAGE_ERROR, number(L"the settings could not be written", status));
            return ERROR_INSTALL_FAILURE;
        }
        return ERROR_SUCCESS;
    });
}

// What removal takes: the task, packages and logs with their folder, reports of crashes that were not sent yet, and the settings. What cannot be
// removed remains: a removal that fails half-way would leave more. Data: the folder.
__declspec(dllexport) UINT __stdcall remove_everything(MSIHANDLE install) {
    return perform(install, [&]() -> UINT {
        std::wstring folder = property(install, L"CustomActionData");
        say(install, INSTALLMESSAGE_INFO, number(L"removed the scheduled task", setup::delete_task()));
        if (!folder.empty()) {
            delete_files(install, folder, L"*");
            folder.pop_back(); // its final backslash
            ::RemoveDirectoryW(folder.c_str());
            ::RemoveDirectoryW(
                folder.substr(0, folder.rfind(L'\\')).c_str()); // the maker's, when nothing else is in it
        }
        std::array<wchar_t, MAX_PATH + 1> temporary{};
        const DWORD length = ::GetTempPathW(static_cast<DWORD>(temporary.size()), temporary.data());
        if (length != 0 && length < temporary.size()) {
            delete_files(install, temporary.data(), L"*.tzo");
            delete_files(install, temporary.data(), L"*.tzr");
        }
        delete_settings();
        return ERROR_SUCCESS;
    });
}

} // extern "C"
