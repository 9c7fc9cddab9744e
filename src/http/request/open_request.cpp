#include "http/request/open_request.h"

#include "http/request/wide.h"
#include "platform/errors.h"
#include "platform/registry.h"

#include <stdexcept>

namespace webio {
namespace {

// Overwrites the whole memory of a string that held a secret before it is released.
class secret {
public:
    secret() = default;
    explicit secret(std::wstring text) noexcept : m_text(std::move(text)) {}
    secret(const secret&) = delete;
    secret& operator=(const secret&) = delete;
    ~secret() {
        m_text.resize(m_text.capacity());
        ::SecureZeroMemory(m_text.data(), m_text.size() * sizeof(wchar_t));
    }
    std::wstring& text() noexcept { return m_text; }

private:
    std::wstring m_text;
};

// The length of a credential of the server counts the characters without the terminator.
void set_credential(const pwrap::http& request, DWORD option, const std::string& value, const char* failure) {
    secret wide(to_wide(value));
    if (!::WinHttpSetOption(request.get(), option, wide.text().data(),
                            static_cast<DWORD>(wide.text().size()))) {
        pwrap::throw_last<pwrap::http_error>(failure);
    }
}

// Unlike those of the server, the length of a proxy credential counts the terminator and the result is ignored:
// a proxy that wants no credentials must not stop the request. Both differences are intended.
void set_proxy_credential(const pwrap::http& request, DWORD option, std::wstring& value) {
    ::WinHttpSetOption(request.get(), option, value.data(), static_cast<DWORD>(value.size() + 1));
}

void set_proxy_password(const pwrap::http& request, const std::string& value) {
    secret wide(to_wide(value));
    set_proxy_credential(request, WINHTTP_OPTION_PROXY_PASSWORD, wide.text());
}

void set_proxy_credentials_from_registry(const pwrap::http& request) {
    pwrap::reg_key key;
    if (key.open(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Tavrin\\Halvoro", KEY_READ | KEY_WOW64_64KEY) !=
        ERROR_SUCCESS) {
        return;
    }
    std::wstring user_name;
    if (pwrap::RegQueryStringValue(key.get(), L"ProxyUporabnik", user_name) == ERROR_SUCCESS) {
        set_proxy_credential(request, WINHTTP_OPTION_PROXY_USERNAME, user_name);
    }
    secret password;
    if (pwrap::RegQueryStringValue(key.get(), L"ProxyGeslo", password.text()) == ERROR_SUCCESS) {
        set_proxy_credential(request, WINHTTP_OPTION_PROXY_PASSWORD, password.text());
    }
}

void set_proxy_credentials(const pwrap::http& request, const proxy_credentials& proxy) {
    if (proxy.user_name != nullptr) {
        std::wstring user_name = to_wide(*proxy.user_name);
        set_proxy_credential(request, WINHTTP_OPTION_PROXY_USERNAME, user_name);
        if (proxy.password != nullptr) {
            set_proxy_password(request, *proxy.password);
        }
    } else if (proxy.password != nullptr) {
        // Only the password: if the caller gives one, no user name is taken from elsewhere.
        set_proxy_password(request, *proxy.password);
    } else {
        set_proxy_credentials_from_registry(request);
    }
}

} // namespace

std::string header_block(const header_list& headers) {
    std::size_t capacity = 0;
    for (const auto& [name, value] : headers) {
        capacity += name.size() + value.size() + 4;
    }
    std::string block;
    block.reserve(capacity);
    for (const auto& [name, value] : headers) {
        if (!block.empty()) {
            block += "\r\n";
        }
        block += name;
        block += ": ";
        block += value;
    }
    return block;
}

DWORD header_block_length(std::size_t characters) {
    if (characters > 4294967295) {
        throw std::invalid_argument("Request headers too big");
    }
    return static_cast<DWORD>(characters);
}

void open_request(pwrap::http& request, pwrap::win_handle<0>& done, const connection& server,
                  const wchar_t* verb, const url_parts& url, const header_list& headers,
                  const accept_types& accepted, const proxy_credentials& proxy,
                  WINHTTP_STATUS_CALLBACK callback) {
    const std::wstring path = to_wide(url.path);
    std::vector<std::wstring> types;
    types.reserve(accepted.size());
    for (const auto& type : accepted) {
        types.push_back(to_wide(type));
    }
    std::vector<const wchar_t*> type_pointers;
    type_pointers.reserve(types.size() + 1);
    for (const auto& type : types) {
        type_pointers.push_back(type.c_str());
    }
    type_pointers.push_back(nullptr);

    request.reset(::WinHttpOpenRequest(server.get(), verb, path.c_str(), nullptr, WINHTTP_NO_REFERER,
                                       type_pointers.data(),
                                       is_secure(url.scheme) ? WINHTTP_FLAG_SECURE : 0));
    if (!request) {
        pwrap::throw_last<pwrap::http_error>("WinHttpOpenRequest failed");
    }
    done.reset(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    if (::WinHttpSetStatusCallback(request.get(), callback, WINHTTP_CALLBACK_FLAG_ALL_NOTIFICATIONS, 0) ==
        WINHTTP_INVALID_STATUS_CALLBACK) {
        pwrap::throw_last<pwrap::http_error>("WinHttpSetStatusCallback failed");
    }
    if (!url.user_name.empty()) {
        set_credential(request, WINHTTP_OPTION_USERNAME, url.user_name,
                       "WinHttpSetOption(WINHTTP_OPTION_USERNAME) failed");
    }
    if (!url.password.empty()) {
        set_credential(request, WINHTTP_OPTION_PASSWORD, url.password,
                       "WinHttpSetOption(WINHTTP_OPTION_PASSWORD) failed");
    }
    set_proxy_credentials(request, proxy);
    if (!headers.empty()) {
        const std::wstring block = to_wide(header_block(headers));
        if (!::WinHttpAddRequestHeaders(request.get(), block.c_str(), header_block_length(block.size()),
                                        WINHTTP_ADDREQ_FLAG_ADD)) {
            pwrap::throw_last<pwrap::http_error>("WinHttpAddRequestHeaders failed");
        }
    }
}

std::optional<DWORD> send_request(HINTERNET request, DWORD_PTR context, const exchange& state) noexcept {
    while (!::WinHttpSendRequest(request, WINHTTP_NO_ADDITIONAL_HEADERS, 0, WINHTTP_NO_REQUEST_DATA, 0, 0,
                                 context)) {
        const DWORD error = ::GetLastError();
        if (error != ERROR_WINHTTP_RESEND_REQUEST || state.ending()) {
            return error;
        }
    }
    return std::nullopt;
}

void stop_notifications(HINTERNET request) noexcept {
    ::WinHttpSetStatusCallback(request, nullptr, WINHTTP_CALLBACK_FLAG_ALL_NOTIFICATIONS, 0);
}

} // namespace webio
