// What the tests of the update driver put in the system's place: COM and the network list manager, the event
// log, the channel in the registry, command line, installer and folders. Each stands in while it lives and
// records what it is asked.
#pragma once

#include "tests/support/substitutes.h"

#include <gtest/gtest.h>

#include <netlistmgr.h>

#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace fakes {

// Initialising COM.
class com {
public:
    explicit com(HRESULT result = S_OK) : m_result(result) {}

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

// The network list manager with its cost manager. Connected at no cost, unless a test sets something else.
class network : public INetworkListManager {
public:
    virtual ~network() {
        EXPECT_EQ(created, released) << "references to the list manager";
        EXPECT_EQ(queried, cost_released) << "references to the cost manager";
    }

    HRESULT creation = S_OK;
    HRESULT connection = S_OK;
    VARIANT_BOOL connected = VARIANT_TRUE;
    HRESULT cost_interface = S_OK;
    HRESULT cost_result = S_OK;
    DWORD cost = 0;

    int created = 0;
    int released = 0;
    int queried = 0;
    int cost_released = 0;
    std::vector<std::string> calls;

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override {
        calls.emplace_back("QueryInterface");
        const IID cost_manager{0xDCB00008, 0x570F, 0x4A9B, {0x8D, 0x69, 0x19, 0x9F, 0xDB, 0xA5, 0x72, 0x3B}};
        EXPECT_TRUE(IsEqualGUID(cost_manager, iid));
        if (cost_interface >= 0) {
            ++queried;
            *object = static_cast<INetworkCostManager*>(&m_costs);
        }
        return cost_interface;
    }
    ULONG STDMETHODCALLTYPE AddRef() override {
        ADD_FAILURE() << "nobody needs a second reference";
        return 2;
    }
    ULONG STDMETHODCALLTYPE Release() override {
        ++released;
        return 0;
    }
    HRESULT STDMETHODCALLTYPE IsConnectedToInternet(VARIANT_BOOL* answer) override {
        calls.emplace_back("IsConnectedToInternet");
        *answer = connected;
        return connection;
    }
    HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT*) override { return unexpected(); }
    HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo**) override { return unexpected(); }
    HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override {
        return unexpected();
    }
    HRESULT STDMETHODCALLTYPE Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*,
                                     UINT*) override {
        return unexpected();
    }
    HRESULT STDMETHODCALLTYPE GetNetworks(NLM_ENUM_NETWORK, IEnumNetworks**) override { return unexpected(); }
    HRESULT STDMETHODCALLTYPE GetNetwork(GUID, INetwork**) override { return unexpected(); }
    HRESULT STDMETHODCALLTYPE GetNetworkConnections(IEnumNetworkConnections**) override {
        return unexpected();
    }
    HRESULT STDMETHODCALLTYPE GetNetworkConnection(GUID, INetworkConnection**) override {
        return unexpected();
    }
    HRESULT STDMETHODCALLTYPE IsConnected(VARIANT_BOOL*) override { return unexpected(); }
    HRESULT STDMETHODCALLTYPE GetConnectivity(NLM_CONNECTIVITY*) override { return unexpected(); }

private:
    // An object of its own, so that its references are counted apart.
    class cost_manager : public INetworkCostManager {
    public:
        explicit cost_manager(network& owner) : m_owner(owner) {}
        virtual ~cost_manager() = default;

        HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void**) override { return unexpected(); }
        ULONG STDMETHODCALLTYPE AddRef() override {
            ADD_FAILURE() << "nobody needs a second reference";
            return 2;
        }
        ULONG STDMETHODCALLTYPE Release() override {
            ++m_owner.cost_released;
            return 0;
        }
        HRESULT STDMETHODCALLTYPE GetCost(DWORD* answer, NLM_SOCKADDR* address) override {
            m_owner.calls.emplace_back("GetCost");
            EXPECT_EQ(nullptr, address);
            *answer = m_owner.cost;
            return m_owner.cost_result;
        }
        HRESULT STDMETHODCALLTYPE GetDataPlanStatus(NLM_DATAPLAN_STATUS*, NLM_SOCKADDR*) override {
            return unexpected();
        }
        HRESULT STDMETHODCALLTYPE SetDestinationAddresses(UINT32, NLM_SOCKADDR*, VARIANT_BOOL) override {
            return unexpected();
        }

    private:
        network& m_owner;
    };

    static HRESULT unexpected() {
        ADD_FAILURE() << "an unexpected call of the network list manager";
        return E_NOTIMPL;
    }

    HRESULT create(REFCLSID id, IUnknown* outer, DWORD context, REFIID iid, void** made) {
        const CLSID list_manager{
            0xDCB00C01, 0x570F, 0x4A9B, {0x8D, 0x69, 0x19, 0x9F, 0xDB, 0xA5, 0x72, 0x3B}};
        const IID list_manager_interface{
            0xDCB00000, 0x570F, 0x4A9B, {0x8D, 0x69, 0x19, 0x9F, 0xDB, 0xA5, 0x72, 0x3B}};
        EXPECT_TRUE(IsEqualGUID(list_manager, id));
        EXPECT_TRUE(IsEqualGUID(list_manager_interface, iid));
        EXPECT_EQ(nullptr, outer);
        EXPECT_EQ(0x17U, context);
        calls.emplace_back("CoCreateInstance");
        if (creation >= 0) {
            ++created;
            *made = static_cast<INetworkListManager*>(this);
        }
        return creation;
    }

    cost_manager m_costs{*this};
    support::script<decltype(::CoCreateInstance)> m_create{
        support::CoCreateInstance, [this](REFCLSID id, IUnknown* outer, DWORD context, REFIID iid,
                                          void** made) { return create(id, outer, context, iid, made); }};
};

// The event log.
class events {
public:
    struct event {
        HANDLE source;
        WORD type;
        WORD category;
        DWORD id;
        bool user;
        std::vector<std::wstring> strings;
        DWORD data_size;
        bool data;
    };
    std::vector<event> written;

private:
    support::script<decltype(::ReportEventW)> m_report{
        support::ReportEventW,
        [this](HANDLE source, WORD type, WORD category, DWORD id, PSID user, WORD count, DWORD data_size,
               const wchar_t** strings, void* data) -> BOOL {
            written.push_back({source,
                               type,
                               category,
                               id,
                               user != nullptr,
                               {strings, strings + count},
                               data_size,
                               data != nullptr});
            return TRUE;
        }};
};

// HKLM\SOFTWARE\Tavrin\Halvoro\Lumaris with its value Channel. No other key exists.
class channel_key {
public:
    bool exists = true;
    std::optional<std::wstring> channel;
    DWORD type = 1; // REG_SZ

    struct opening {
        HKEY parent;
        std::wstring name;
        DWORD options;
        REGSAM access;
    };
    std::vector<opening> openings; // of this key
    int closed = 0;
    std::function<void()> on_close;

private:
    static HKEY key() { return reinterpret_cast<HKEY>(0x51500); }

    LSTATUS query(const wchar_t* name, DWORD* value_type, BYTE* data, DWORD* size) {
        EXPECT_STREQ(L"Channel", name);
        if (!channel) {
            return 2;
        }
        const DWORD needed = static_cast<DWORD>((channel->size() + 1) * sizeof(wchar_t));
        *value_type = type;
        const bool fits = needed <= *size;
        if (fits) {
            std::memcpy(data, channel->c_str(), needed);
        }
        *size = needed;
        return fits ? 0 : 234;
    }

    support::script<decltype(::RegOpenKeyExW)> m_open{
        support::RegOpenKeyExW,
        [this](HKEY parent, const wchar_t* name, DWORD options, REGSAM access, HKEY* opened) -> LSTATUS {
            if (std::wstring(name) != L"SOFTWARE\\Tavrin\\Halvoro\\Lumaris") {
                return 2;
            }
            openings.push_back({parent, name, options, access});
            if (!exists) {
                return 2;
            }
            *opened = key();
            return 0;
        }};
    support::script<decltype(::RegQueryValueExW)> m_query{support::RegQueryValueExW,
                                                          [this](HKEY from, const wchar_t* name, DWORD*,
                                                                 DWORD* value_type, BYTE* data,
                                                                 DWORD* size) -> LSTATUS {
                                                              EXPECT_EQ(key(), from);
                                                              return query(name, value_type, data, size);
                                                          }};
    support::script<decltype(::RegCloseKey)> m_close{support::RegCloseKey,
                                                     [this](HKEY key_to_close) -> LSTATUS {
                                                         EXPECT_EQ(key(), key_to_close);
                                                         ++closed;
                                                         if (on_close) {
                                                             on_close();
                                                         }
                                                         return 0;
                                                     }};
};

// The process's command line and its active code page.
class command_line {
public:
    explicit command_line(std::wstring text, UINT code_page = 1252)
        : m_text(std::move(text)), m_code_page(code_page) {}

private:
    std::wstring m_text;
    UINT m_code_page;
    support::script<decltype(::GetCommandLineW)> m_line{support::GetCommandLineW,
                                                        [this] { return m_text.data(); }};
    support::script<decltype(::GetACP)> m_page{support::GetACP, [this] { return m_code_page; }};
};

// ShellExecuteW, which is to start the Windows Installer.
class shell {
public:
    std::size_t result = 33;
    DWORD error = 0;

    struct start {
        HWND owner;
        bool verb;
        std::wstring file;
        std::wstring parameters;
        bool folder;
        int show;
    };
    std::vector<start> started;
    std::function<void()> on_start;

private:
    support::script<decltype(::ShellExecuteW)> m_execute{
        support::ShellExecuteW, [this](HWND owner, const wchar_t* verb, const wchar_t* file,
                                       const wchar_t* parameters, const wchar_t* folder, int show) {
            started.push_back({owner, verb != nullptr, file, parameters, folder != nullptr, show});
            if (on_start) {
                on_start();
            }
            ::SetLastError(error);
            return reinterpret_cast<HINSTANCE>(result);
        }};
};

// The process's token: elevated or not, or not to be asked.
class token {
public:
    bool opens = true;
    bool tells = true;
    DWORD elevation = 0;
    int closed = 0;

private:
    static HANDLE value() { return reinterpret_cast<HANDLE>(0x7654321C); }

    support::script<decltype(::OpenProcessToken)> m_open{
        support::OpenProcessToken, [this](HANDLE process, DWORD access, HANDLE* opened) -> BOOL {
            EXPECT_EQ(::GetCurrentProcess(), process);
            EXPECT_EQ(8U, access); // TOKEN_QUERY
            *opened = opens ? value() : nullptr;
            return opens ? TRUE : FALSE;
        }};
    support::script<decltype(::GetTokenInformation)> m_query{
        support::GetTokenInformation,
        [this](HANDLE from, TOKEN_INFORMATION_CLASS kind, void* buffer, DWORD size, DWORD* needed) -> BOOL {
            EXPECT_EQ(value(), from);
            EXPECT_EQ(20, kind); // TokenElevation
            EXPECT_EQ(4U, size);
            *needed = 4;
            std::memcpy(buffer, &elevation, 4);
            return tells ? TRUE : FALSE;
        }};
    support::script<decltype(::CloseHandle)> m_close{support::CloseHandle, [this](HANDLE handle) -> BOOL {
                                                         if (handle != value()) {
                                                             return support::CloseHandle.real(handle);
                                                         }
                                                         ++closed;
                                                         return TRUE;
                                                     }};
};

// A temporary folder of the test's own, empty at first and gone with it, for a process that is not elevated.
class temporary_folder {
public:
    temporary_folder() {
        wchar_t temp[261];
        EXPECT_NE(0U, support::GetTempPathW.real(261, temp));
        m_path =
            std::wstring(temp) + L"lumaris-unit-tests-" + std::to_wstring(::GetCurrentProcessId()) + L"\\";
        EXPECT_TRUE(support::CreateDirectoryW.real(m_path.c_str(), nullptr)) << ::GetLastError();
    }
    temporary_folder(const temporary_folder&) = delete;
    temporary_folder& operator=(const temporary_folder&) = delete;
    ~temporary_folder() {
        WIN32_FIND_DATAW found;
        const HANDLE search = ::FindFirstFileW((m_path + L"*").c_str(), &found);
        do {
            ::DeleteFileW((m_path + found.cFileName).c_str());
        } while (::FindNextFileW(search, &found));
        support::FindClose.real(search);
        EXPECT_TRUE(::RemoveDirectoryW(m_path.c_str()));
    }

    const std::wstring& path() const { return m_path; }

    // The file's contents, or nothing if there is no such file or it is still open for writing.
    std::optional<std::string> contents(const std::wstring& name) const {
        const HANDLE file = support::CreateFileW.real((m_path + name).c_str(), GENERIC_READ, FILE_SHARE_READ,
                                                      nullptr, OPEN_EXISTING, 0, nullptr);
        if (file == INVALID_HANDLE_VALUE) {
            return std::nullopt;
        }
        std::string text(100000, '\0');
        DWORD length = 0;
        support::ReadFile.real(file, text.data(), 100000, &length, nullptr);
        support::CloseHandle.real(file);
        text.resize(length);
        return text;
    }

    void put(const std::wstring& name, const std::string& text) const {
        const HANDLE file = support::CreateFileW.real((m_path + name).c_str(), GENERIC_WRITE, 0, nullptr,
                                                      CREATE_ALWAYS, 0, nullptr);
        DWORD length = 0;
        EXPECT_TRUE(
            support::WriteFile.real(file, text.data(), static_cast<DWORD>(text.size()), &length, nullptr));
        support::CloseHandle.real(file);
    }

private:
    std::wstring m_path;
    token m_token;
    support::script<decltype(::GetTempPathW)> m_temp{
        support::GetTempPathW, [this](DWORD size, wchar_t* buffer) -> DWORD {
            EXPECT_EQ(260U, size);
            std::memcpy(buffer, m_path.c_str(), (m_path.size() + 1) * sizeof(wchar_t));
            return static_cast<DWORD>(m_path.size());
        }};
};

} // namespace fakes
