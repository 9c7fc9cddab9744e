#include "http/request/open_request.h"

#include "tests/http/request/expect.h"
#include "tests/stream/expect.h"
#include "tests/support/fake_winhttp.h"
#include "tests/support/freed_memory.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <stdexcept>

namespace {

using namespace std::string_literals;
using strings = std::vector<std::string>;
using wide_strings = std::vector<std::wstring>;
using support::fake_winhttp;
using webio::url_parts;
using webio::url_scheme;

const HKEY fake_key = reinterpret_cast<HKEY>(std::size_t{0x7700});

// The registry as the opener sees it: one key with values, or none.
class fake_registry {
public:
    explicit fake_registry(fake_winhttp& log)
        : m_log(log),
          m_open(support::RegOpenKeyExW,
                 [this](HKEY parent, LPCWSTR name, DWORD options, REGSAM access, PHKEY key) -> LSTATUS {
                     m_log.note("RegOpenKeyExW");
                     EXPECT_EQ(HKEY_LOCAL_MACHINE, parent);
                     EXPECT_STREQ(L"SOFTWARE\\Tavrin\\Halvoro", name);
                     EXPECT_EQ(0u, options);
                     EXPECT_EQ(0x20119u, access); // reading, in the 64-bit view
                     if (!exists) {
                         return ERROR_FILE_NOT_FOUND;
                     }
                     *key = fake_key;
                     return ERROR_SUCCESS;
                 }),
          m_query(
              support::RegQueryValueExW,
              [this](HKEY key, LPCWSTR name, LPDWORD, LPDWORD type, LPBYTE data, LPDWORD size) -> LSTATUS {
                  EXPECT_EQ(fake_key, key);
                  const auto value = values.find(name);
                  m_log.note("RegQueryValueExW "s + (name[5] == L'U' ? "ProxyUporabnik" : "ProxyGeslo"));
                  if (value == values.end()) {
                      return ERROR_FILE_NOT_FOUND;
                  }
                  *type = value->second.first;
                  const std::wstring& text = value->second.second;
                  const auto needed = static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t));
                  const bool fits = *size >= needed;
                  *size = needed;
                  if (!fits) {
                      return ERROR_MORE_DATA;
                  }
                  std::memcpy(data, text.c_str(), needed);
                  return ERROR_SUCCESS;
              }),
          m_close(support::RegCloseKey, [this](HKEY key) -> LSTATUS {
              m_log.note("RegCloseKey");
              EXPECT_EQ(fake_key, key);
              return ERROR_SUCCESS;
          }) {}

    bool exists = true;
    std::map<std::wstring, std::pair<DWORD, std::wstring>> values;

private:
    fake_winhttp& m_log;
    support::script<decltype(::RegOpenKeyExW)> m_open;
    support::script<decltype(::RegQueryValueExW)> m_query;
    support::script<decltype(::RegCloseKey)> m_close;
};

void CALLBACK some_callback(HINTERNET, DWORD_PTR, DWORD, void*, DWORD) {}

class open_request : public ::testing::Test {
protected:
    open_request() {
        registry.exists = false;
        url.host = "host.example";
        url.path = "/path";
        server.emplace(session, url);
        http.calls.clear();
    }

    void open() {
        webio::open_request(request, done, *server, L"GET", url, headers, accepted, proxy, some_callback);
    }

    const fake_winhttp::request_record& record() const { return http.requests.at(0); }

    // "number: text" of each option that was set; the text with its terminator as a "!", if that was
    // counted.
    wide_strings options() const {
        wide_strings result;
        for (const auto& option : record().options) {
            std::wstring text = option.text;
            if (!text.empty() && text.back() == L'\0') {
                text.back() = L'!';
            }
            result.push_back(std::to_wstring(option.number) + L": " + text);
        }
        return result;
    }

    fake_winhttp http{fake_winhttp::delivery::calling_thread};
    fake_registry registry{http};
    webio::session session{"Test/1", {1, 2, 3, 4}};
    url_parts url;
    std::optional<webio::connection> server;
    webio::header_list headers;
    webio::accept_types accepted;
    webio::proxy_credentials proxy;
    pwrap::http request;
    pwrap::win_handle<0> done;
};

} // namespace

TEST_F(open_request, takes_its_steps_in_order) {
    url.user_name = "user";
    url.password = "secret";
    headers = {{"A", "1"}};
    registry.exists = true;
    registry.values = {{L"ProxyUporabnik", {REG_SZ, L"u"}}, {L"ProxyGeslo", {REG_SZ, L"g"}}};
    support::script create(support::CreateEventW, [&](auto... arguments) {
        http.note("CreateEventW");
        return support::CreateEventW.real(arguments...);
    });
    open();
    EXPECT_EQ((strings{"WinHttpOpenRequest", "CreateEventW", "WinHttpSetStatusCallback", "WinHttpSetOption",
                       "WinHttpSetOption", "RegOpenKeyExW", "RegQueryValueExW ProxyUporabnik",
                       "WinHttpSetOption", "RegQueryValueExW ProxyGeslo", "WinHttpSetOption", "RegCloseKey",
                       "WinHttpAddRequestHeaders"}),
              http.calls);
    EXPECT_EQ((wide_strings{L"4096: user", L"4097: secret", L"4098: u!", L"4099: g!"}), options());
}

TEST_F(open_request, opens_on_the_connection_with_verb_and_path) {
    open();
    EXPECT_EQ(request.get(), record().handle);
    EXPECT_EQ(server->get(), record().connection);
    EXPECT_EQ(L"GET", record().verb);
    EXPECT_EQ(L"/path", record().path);
    EXPECT_FALSE(record().has_version);
    EXPECT_FALSE(record().has_referrer);
}

TEST_F(open_request, sends_the_path_unchanged_with_query_and_fragment) {
    url.path = "/a b/%20/\xc5\xbd?q=1&r=%zz#fragment";
    open();
    EXPECT_EQ(L"/a b/%20/\x017d?q=1&r=%zz#fragment", record().path);
}

TEST_F(open_request, takes_an_empty_path) {
    url.path.clear();
    open();
    EXPECT_EQ(L"", record().path);
}

TEST_F(open_request, gives_the_accepted_types_as_a_null_terminated_array) {
    accepted = {"text/plain", "text/\xc5\xbd", "*/*"};
    open();
    EXPECT_TRUE(record().has_accept_array);
    EXPECT_EQ((wide_strings{L"text/plain", L"text/\x017d", L"*/*"}), record().accepted);
}

TEST_F(open_request, without_accepted_types_gives_an_array_of_the_terminator_alone) {
    open();
    EXPECT_TRUE(record().has_accept_array);
    EXPECT_TRUE(record().accepted.empty());
}

TEST_F(open_request, is_secure_for_https_and_wss_only) {
    for (const auto scheme : {url_scheme::http, url_scheme::https, url_scheme::ws, url_scheme::wss}) {
        url.scheme = scheme;
        open();
    }
    EXPECT_EQ(0u, http.requests.at(0).flags);
    EXPECT_EQ(0x00800000u, http.requests.at(1).flags);
    EXPECT_EQ(0u, http.requests.at(2).flags);
    EXPECT_EQ(0x00800000u, http.requests.at(3).flags);
}

TEST_F(open_request, stays_secure_with_an_explicit_port) {
    url = webio::parse_url("https://host.example:8443/x");
    server.emplace(session, url);
    open();
    EXPECT_EQ(8443, http.connections.at(1).port);
    EXPECT_EQ(0x00800000u, record().flags);
}

TEST_F(open_request, closes_a_request_and_an_event_that_were_held_before) {
    const HANDLE former = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
    std::vector<HANDLE> closed;
    support::script close(support::CloseHandle, [&](HANDLE handle) {
        closed.push_back(handle);
        return support::CloseHandle.real(handle);
    });
    done.reset(former);
    open();
    EXPECT_EQ((std::vector<HANDLE>{former}), closed);
    EXPECT_FALSE(http.requests.at(0).closed);
    open();
    EXPECT_TRUE(http.requests.at(0).closed);
    EXPECT_FALSE(http.requests.at(1).closed);
}

TEST_F(open_request, makes_an_unnamed_manual_reset_event_that_is_not_signalled) {
    int made = 0;
    support::script create(support::CreateEventW,
                           [&](LPSECURITY_ATTRIBUTES security, BOOL manual, BOOL signalled, LPCWSTR name) {
                               ++made;
                               EXPECT_EQ(nullptr, security);
                               EXPECT_TRUE(manual);
                               EXPECT_FALSE(signalled);
                               EXPECT_EQ(nullptr, name);
                               return support::CreateEventW.real(security, manual, signalled, name);
                           });
    open();
    EXPECT_EQ(1, made);
    EXPECT_EQ(DWORD{WAIT_TIMEOUT}, ::WaitForSingleObject(done.get(), 0));
    ::SetEvent(done.get());
    EXPECT_EQ(DWORD{WAIT_OBJECT_0}, ::WaitForSingleObject(done.get(), 0));
    EXPECT_EQ(DWORD{WAIT_OBJECT_0}, ::WaitForSingleObject(done.get(), 0));
}

TEST_F(open_request, does_not_look_at_whether_the_event_was_made) {
    support::script create(support::CreateEventW,
                           [](LPSECURITY_ATTRIBUTES, BOOL, BOOL, LPCWSTR) -> HANDLE { return nullptr; });
    open();
    EXPECT_FALSE(done);
    EXPECT_TRUE(request);
}

TEST_F(open_request, asks_for_all_notifications) {
    open();
    ASSERT_EQ(1u, record().callbacks.size());
    EXPECT_EQ(&some_callback, record().callbacks[0].callback);
    EXPECT_EQ(0xffffffffu, record().callbacks[0].mask);
    EXPECT_EQ(0u, record().callbacks[0].reserved);
}

TEST_F(open_request, counts_no_terminator_in_the_credentials_of_the_server) {
    url.user_name = "us\xc5\xbdr";
    url.password = "pass word";
    open();
    ASSERT_EQ((wide_strings{L"4096: us\x017dr", L"4097: pass word"}), options());
    EXPECT_EQ(4u, record().options[0].length);
    EXPECT_EQ(9u, record().options[1].length);
}

TEST_F(open_request, sets_only_the_credential_that_the_url_carries) {
    url.password = "p";
    open();
    EXPECT_EQ((wide_strings{L"4097: p"}), options());
    url.password.clear();
    url.user_name = "u";
    open();
    ASSERT_EQ(1u, http.requests.at(1).options.size());
    EXPECT_EQ(4096u, http.requests[1].options[0].number);
}

TEST_F(open_request, sets_both_proxy_credentials_that_are_given) {
    const std::string user = "pr\xc5\xbdxy";
    const std::string password = "word";
    proxy = {&user, &password};
    open();
    ASSERT_EQ((wide_strings{L"4098: pr\x017dxy!", L"4099: word!"}), options());
    // These count the terminator.
    EXPECT_EQ(6u, record().options[0].length);
    EXPECT_EQ(5u, record().options[1].length);
    EXPECT_EQ(0u, http.count("RegOpenKeyExW"));
}

TEST_F(open_request, with_a_proxy_user_name_only_sets_that_alone) {
    registry.exists = true;
    registry.values = {{L"ProxyUporabnik", {REG_SZ, L"u"}}, {L"ProxyGeslo", {REG_SZ, L"g"}}};
    const std::string user = "user";
    proxy = {&user, nullptr};
    open();
    EXPECT_EQ((wide_strings{L"4098: user!"}), options());
    EXPECT_EQ(0u, http.count("RegOpenKeyExW"));
}

TEST_F(open_request, with_a_proxy_password_only_sets_that_alone_and_opens_no_registry_key) {
    registry.exists = true;
    registry.values = {{L"ProxyUporabnik", {REG_SZ, L"u"}}, {L"ProxyGeslo", {REG_SZ, L"g"}}};
    const std::string password = "word";
    proxy = {nullptr, &password};
    open();
    EXPECT_EQ((wide_strings{L"4099: word!"}), options());
    EXPECT_EQ(0u, http.count("RegOpenKeyExW"));
}

// A given text counts, whatever it says.
TEST_F(open_request, sets_empty_proxy_credentials_that_are_given) {
    const std::string empty;
    proxy = {&empty, &empty};
    open();
    EXPECT_EQ((wide_strings{L"4098: !", L"4099: !"}), options());
    EXPECT_EQ(1u, record().options[0].length);
}

TEST_F(open_request, takes_both_proxy_credentials_from_the_registry) {
    registry.exists = true;
    registry.values = {{L"ProxyUporabnik", {REG_SZ, L"us\x017dr"}}, {L"ProxyGeslo", {REG_SZ, L"word"}}};
    open();
    ASSERT_EQ((wide_strings{L"4098: us\x017dr!", L"4099: word!"}), options());
    EXPECT_EQ(5u, record().options[0].length);
    EXPECT_EQ(5u, record().options[1].length);
    EXPECT_EQ(1u, http.count("RegCloseKey"));
}

TEST_F(open_request, expands_what_the_registry_says_to_expand) {
    ::SetEnvironmentVariableW(L"LUMARIS_TEST", L"expanded");
    registry.exists = true;
    registry.values = {{L"ProxyUporabnik", {REG_EXPAND_SZ, L"%LUMARIS_TEST%-user"}},
                       {L"ProxyGeslo", {REG_SZ, L"%LUMARIS_TEST%"}}};
    open();
    EXPECT_EQ((wide_strings{L"4098: expanded-user!", L"4099: %LUMARIS_TEST%!"}), options());
}

TEST_F(open_request, with_only_a_password_in_the_registry_sets_that_alone) {
    registry.exists = true;
    registry.values = {{L"ProxyGeslo", {REG_SZ, L"word"}}};
    open();
    EXPECT_EQ((wide_strings{L"4099: word!"}), options());
}

TEST_F(open_request, with_only_a_user_name_in_the_registry_sets_that_alone) {
    registry.exists = true;
    registry.values = {{L"ProxyUporabnik", {REG_SZ, L"user"}}};
    open();
    EXPECT_EQ((wide_strings{L"4098: user!"}), options());
}

TEST_F(open_request, skips_registry_values_of_another_type) {
    registry.exists = true;
    registry.values = {{L"ProxyUporabnik", {REG_BINARY, L"user"}}, {L"ProxyGeslo", {REG_DWORD, L"x"}}};
    open();
    EXPECT_TRUE(record().options.empty());
}

TEST_F(open_request, does_without_the_registry_key) {
    open();
    EXPECT_TRUE(record().options.empty());
    EXPECT_EQ(1u, http.count("RegOpenKeyExW"));
    EXPECT_EQ(0u, http.count("RegCloseKey"));
}

TEST_F(open_request, does_not_look_at_whether_proxy_credentials_were_taken) {
    const std::string user = "user";
    const std::string password = "word";
    proxy = {&user, &password};
    http.failures["WinHttpSetOption"] = {12018, 12018};
    open();
    EXPECT_EQ((wide_strings{L"4098: user!", L"4099: word!"}), options());
}

TEST_F(open_request, does_not_look_at_whether_those_of_the_registry_were_taken) {
    registry.exists = true;
    registry.values = {{L"ProxyUporabnik", {REG_SZ, L"u"}}, {L"ProxyGeslo", {REG_SZ, L"g"}}};
    http.failures["WinHttpSetOption"] = {12018, 12018};
    open();
    EXPECT_EQ(2u, record().options.size());
}

namespace {

// Opens a request while memory is watched, and expects that the proxy password, longer than what a string
// holds in itself, is in no released block and that the one that was handed over is all zero over its whole
// capacity.
template <class Open>
void expect_proxy_password_is_wiped(fake_winhttp& http, const std::wstring& password, Open open) {
    support::freed_memory memory(password);
    bool seen = false;
    support::script set(support::WinHttpSetOption,
                        [&](HINTERNET, DWORD number, LPVOID data, DWORD length) -> BOOL {
                            if (number == 4099) {
                                seen = true;
                                EXPECT_EQ(password.size() + 1, length);
                                EXPECT_EQ(0, std::memcmp(data, password.c_str(), length * sizeof(wchar_t)));
                                memory.watch(data);
                            }
                            return TRUE;
                        });
    open();
    EXPECT_TRUE(seen);
    EXPECT_EQ(0u, memory.found());
    EXPECT_LT(0u, memory.released());
    EXPECT_TRUE(memory.watched_block_was_released());
    EXPECT_TRUE(memory.watched_block_was_zero());
    EXPECT_EQ(1u, http.requests.size());
}

} // namespace

TEST_F(open_request, wipes_the_given_proxy_password) {
    const std::string password = "a password longer than a short string";
    proxy = {nullptr, &password};
    expect_proxy_password_is_wiped(http, L"a password longer than a short string", [&] { open(); });
}

TEST_F(open_request, wipes_the_given_proxy_password_beside_a_user_name) {
    const std::string user = "user";
    const std::string password(600, 'p'); // more than a conversion holds on the stack
    proxy = {&user, &password};
    expect_proxy_password_is_wiped(http, std::wstring(600, L'p'), [&] { open(); });
}

TEST_F(open_request, wipes_the_proxy_password_of_the_registry) {
    registry.exists = true;
    registry.values = {{L"ProxyGeslo", {REG_SZ, L"a password longer than a short string"}}};
    expect_proxy_password_is_wiped(http, L"a password longer than a short string", [&] { open(); });
}

TEST_F(open_request, wipes_a_very_long_proxy_password_of_the_registry) {
    registry.exists = true;
    registry.values = {{L"ProxyGeslo", {REG_SZ, std::wstring(600, L'p')}}};
    expect_proxy_password_is_wiped(http, std::wstring(600, L'p'), [&] { open(); });
}

TEST_F(open_request, wipes_an_expanded_proxy_password_of_the_registry) {
    registry.exists = true;
    registry.values = {{L"ProxyGeslo", {REG_EXPAND_SZ, L"a password longer than a short string"}}};
    expect_proxy_password_is_wiped(http, L"a password longer than a short string", [&] { open(); });
}

TEST_F(open_request, wipes_a_very_long_expanded_proxy_password_of_the_registry) {
    registry.exists = true;
    registry.values = {{L"ProxyGeslo", {REG_EXPAND_SZ, std::wstring(600, L'p')}}};
    expect_proxy_password_is_wiped(http, std::wstring(600, L'p'), [&] { open(); });
}

// A password in the address is as secret as one for the proxy.
TEST_F(open_request, wipes_the_password_of_the_server) {
    const std::wstring password = L"a password longer than a short string";
    url.user_name = "user";
    url.password = "a password longer than a short string";
    bool seen = false;
    support::freed_memory memory(password);
    support::script set(support::WinHttpSetOption,
                        [&](HINTERNET, DWORD number, LPVOID data, DWORD length) -> BOOL {
                            if (number == 4097) {
                                seen = true;
                                EXPECT_EQ(password.size(), length);
                                EXPECT_EQ(0, std::memcmp(data, password.data(), length * sizeof(wchar_t)));
                                memory.watch(data);
                            }
                            return TRUE;
                        });
    open();
    EXPECT_TRUE(seen);
    EXPECT_EQ(0u, memory.found());
    EXPECT_TRUE(memory.watched_block_was_released());
    EXPECT_TRUE(memory.watched_block_was_zero());
}

// The system may have put a part of the text into a buffer that turned out too small.
TEST_F(open_request, wipes_what_an_expansion_left_in_a_buffer_too_small) {
    const std::wstring password(900, L'p');
    registry.exists = true;
    registry.values = {{L"ProxyGeslo", {REG_EXPAND_SZ, L"%X%"}}};
    support::script expand(
        support::ExpandEnvironmentStringsW, [&](LPCWSTR, LPWSTR buffer, DWORD size) -> DWORD {
            const DWORD needed = 901;
            std::memcpy(buffer, password.c_str(), std::min(size, needed) * sizeof(wchar_t));
            return needed;
        });
    support::script set(support::WinHttpSetOption,
                        [](HINTERNET, DWORD, LPVOID, DWORD) -> BOOL { return TRUE; });
    const std::wstring part(100, L'p'); // outlives the watch
    support::freed_memory memory(part);
    open();
    EXPECT_EQ(0u, memory.found());
}

TEST_F(open_request, without_headers_adds_none) {
    open();
    EXPECT_EQ(0u, http.count("WinHttpAddRequestHeaders"));
}

TEST_F(open_request, adds_all_headers_as_one_block_in_the_order_of_their_names) {
    headers["b"] = "2";
    headers["A"] = "1";
    open();
    ASSERT_EQ(1u, record().headers.size());
    EXPECT_EQ(L"A: 1\r\nb: 2", record().headers[0].text);
    EXPECT_EQ(10u, record().headers[0].length);
    EXPECT_EQ(0x20000000u, record().headers[0].modifiers);
}

TEST_F(open_request, counts_characters_of_headers_and_not_bytes) {
    headers = {{"X-\xc5\xbd", "\xf0\x9f\x98\x80"}};
    open();
    EXPECT_EQ(L"X-\x017d: \xd83d\xde00", record().headers.at(0).text);
    EXPECT_EQ(7u, record().headers[0].length);
}

TEST_F(open_request, that_cannot_be_opened_throws) {
    http.failures["WinHttpOpenRequest"] = {12009};
    test::expect_http_error(12009, "WinHttpOpenRequest failed", [&] { open(); });
    EXPECT_EQ((strings{"WinHttpOpenRequest"}), http.calls);
}

TEST_F(open_request, whose_callback_is_refused_throws) {
    http.failures["WinHttpSetStatusCallback"] = {12018};
    url.user_name = "user";
    test::expect_http_error(12018, "WinHttpSetStatusCallback failed", [&] { open(); });
    EXPECT_TRUE(record().options.empty());
}

TEST_F(open_request, whose_user_name_is_refused_throws) {
    http.failures["WinHttpSetOption"] = {12009};
    url.user_name = "user";
    url.password = "secret";
    test::expect_http_error(12009, "WinHttpSetOption(WINHTTP_OPTION_USERNAME) failed", [&] { open(); });
    EXPECT_EQ(1u, record().options.size());
}

TEST_F(open_request, whose_password_is_refused_throws) {
    http.failures["WinHttpSetOption"] = {0, 12009};
    url.user_name = "user";
    url.password = "secret";
    test::expect_http_error(12009, "WinHttpSetOption(WINHTTP_OPTION_PASSWORD) failed", [&] { open(); });
    EXPECT_EQ(0u, http.count("RegOpenKeyExW"));
}

TEST_F(open_request, whose_headers_are_refused_throws) {
    http.failures["WinHttpAddRequestHeaders"] = {87};
    headers = {{"A", "1"}};
    test::expect_http_error(87, "WinHttpAddRequestHeaders failed", [&] { open(); });
}

TEST(header_block, joins_the_lines_and_ends_without_a_separator) {
    EXPECT_EQ("", webio::header_block({}));
    EXPECT_EQ("A: 1", webio::header_block({{"A", "1"}}));
    EXPECT_EQ("A: 1\r\nb: 2", webio::header_block({{"b", "2"}, {"A", "1"}}));
    EXPECT_EQ("Cache-Control: no-cache\r\nPragma: no-cache",
              webio::header_block({{"Pragma", "no-cache"}, {"Cache-Control", "no-cache"}}));
    EXPECT_EQ(": \r\nA: ", webio::header_block({{"", ""}, {"A", ""}}));
}

TEST(header_block, orders_names_by_their_bytes) {
    EXPECT_EQ(
        "A: \r\nAA: \r\nB: \r\n_: \r\na: \r\n\xc5\xbd: ",
        webio::header_block({{"\xc5\xbd", ""}, {"a", ""}, {"B", ""}, {"_", ""}, {"AA", ""}, {"A", ""}}));
}

TEST(header_block, is_made_in_room_reserved_beforehand) {
    // 1 + 1 + 4 for each entry.
    EXPECT_LE(24u, webio::header_block({{"a", "1"}, {"b", "2"}, {"c", "3"}, {"d", "4"}}).capacity());
}

TEST(header_block_length, ends_at_4294967295_characters) {
    EXPECT_EQ(0u, webio::header_block_length(0));
    EXPECT_EQ(4294967295u, webio::header_block_length(4294967295));
    test::expect_throw<std::invalid_argument>("Request headers too big",
                                              [] { webio::header_block_length(4294967296); });
    test::expect_throw<std::invalid_argument>(
        "Request headers too big", [] { webio::header_block_length(static_cast<std::size_t>(-1)); });
}
