#include "minisign/verified_fetch.h"

#include "platform/errors.h"
#include "platform/user_cancelled.h"
#include "stream/bounded_memory_file.h"
#include "stream/file.h"
#include "tests/minisign/fixtures.h"
#include "tests/stream/expect.h"
#include "tests/support/fake_winhttp.h"

#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <typeinfo>

namespace {

using strings = std::vector<std::string>;
using wide_strings = std::vector<std::wstring>;
using corvo::minisign::trusted_key;
using corvo::minisign::verified_fetch;
using corvo::stream::state_t;
using fixtures::test_key;
using support::fake_winhttp;

// One indicator for both phases: what is there already is checked, and what comes is counted.
class indicator : public corvo::progress<std::uint64_t> {
public:
    void set_range(std::uint64_t start, std::uint64_t end) override {
        log.push_back("range " + std::to_string(start) + " " + std::to_string(end));
    }
    void set(std::uint64_t position) override { log.push_back(std::to_string(position)); }
    bool cancel() override {
        ++asked;
        return cancel_at != 0 && asked >= cancel_at;
    }
    strings log;
    int asked = 0;
    int cancel_at = 0;
};

// A destination of which one operation fails, the nth time.
class failing_file : public corvo::stream::memory_file {
public:
    corvo::stream::fpos seek(corvo::stream::foff offset, corvo::stream::seek_t how) override {
        if (++seeks == fail_seek) {
            refuse(131); // negative seek
            return corvo::stream::fpos_max;
        }
        return memory_file::seek(offset, how);
    }
    void truncate() override {
        if (fail_truncate) {
            refuse(5); // access denied
            return;
        }
        memory_file::truncate();
    }
    std::size_t write(const void* data, std::size_t length) override {
        if (fail_write) {
            refuse(112); // disk full
            return 0;
        }
        return memory_file::write(data, length);
    }
    int seeks = 0;
    int fail_seek = 0;
    bool fail_truncate = false;
    bool fail_write = false;

private:
    void refuse(DWORD error) {
        m_state = state_t::fail;
        ::SetLastError(error);
    }
};

class verified : public ::testing::Test {
protected:
    verified() {
        url.host = "host.example";
        url.path = "/folder/name.txt";
        server.emplace(session, url);
    }
    ~verified() noexcept override {} // a stream's may throw; this one's does not

    void serve(std::string_view body, DWORD status = 200) {
        http.replies.push_back(fake_winhttp::answer(std::string(body), status));
    }

    void fetch(corvo::progress<std::uint64_t>* progress = nullptr) { fetch_into(destination, progress); }
    void fetch_into(corvo::stream::basic_file& file, corvo::progress<std::uint64_t>* progress = nullptr) {
        verified_fetch(*server, url, headers, "application/octet-stream", &test_key, 1, file, progress);
    }

    std::string contents() { return fixtures::contents(destination, destination.size()); }

    // Of an exception with a nested one: both types and texts.
    template <class Inner>
    void expect_nested(const std::string& outer, const std::string& inner,
                       const std::function<void()>& action) {
        try {
            action();
            ADD_FAILURE() << "nothing was thrown, expected: " << outer;
        } catch (const std::runtime_error& error) {
            EXPECT_EQ(outer, error.what());
            try {
                std::rethrow_if_nested(error);
                ADD_FAILURE() << "nothing is nested, expected: " << inner;
            } catch (const Inner& cause) {
                EXPECT_TRUE(typeid(Inner) == typeid(cause)) << typeid(cause).name();
                EXPECT_EQ(inner, cause.what());
            }
        }
    }

    fake_winhttp http;
    webio::session session{"Test/1", {1, 2, 3, 4}};
    webio::url_parts url;
    webio::header_list headers;
    std::optional<webio::connection> server;
    corvo::stream::memory_file destination;
};

std::string http_text(const char* literal, DWORD number) {
    return std::string(literal) + ": " + pwrap::http_error_message(number, 0);
}

std::string system_text(int number) {
    return std::system_category().message(number);
}

} // namespace

TEST_F(verified, fetches_signature_and_content_in_this_order) {
    serve(fixtures::text_minisig);
    serve(fixtures::text);
    fetch();
    EXPECT_EQ((wide_strings{L"/folder/name.txt.minisig", L"/folder/name.txt"}), http.paths());
    EXPECT_EQ(fixtures::text, contents());
}

TEST_F(verified, appends_to_the_whole_path_whatever_it_holds) {
    url.path = "/name?query=1#fragment";
    serve(fixtures::text_minisig);
    serve(fixtures::text);
    fetch();
    EXPECT_EQ((wide_strings{L"/name?query=1#fragment.minisig", L"/name?query=1#fragment"}), http.paths());
}

TEST_F(verified, sends_the_same_headers_with_both_requests) {
    headers = {{"Pragma", "no-cache"}, {"Cache-Control", "no-cache"}};
    serve(fixtures::text_minisig);
    serve(fixtures::text);
    fetch();
    ASSERT_EQ(2u, http.requests.size());
    for (const auto& request : http.requests) {
        ASSERT_EQ(1u, request.headers.size());
        EXPECT_EQ(L"Cache-Control: no-cache\r\nPragma: no-cache", request.headers[0].text);
    }
}

TEST_F(verified, sends_no_headers_where_there_are_none) {
    serve(fixtures::text_minisig);
    serve(fixtures::text);
    fetch();
    EXPECT_EQ(0u, http.count("WinHttpAddRequestHeaders"));
}

TEST_F(verified, accepts_plain_text_for_the_signature_and_what_the_caller_says_for_the_content) {
    serve(fixtures::text_minisig);
    serve(fixtures::text);
    fetch();
    ASSERT_EQ(2u, http.requests.size());
    EXPECT_EQ((wide_strings{L"text/plain"}), http.requests[0].accepted);
    EXPECT_EQ((wide_strings{L"application/octet-stream"}), http.requests[1].accepted);
    EXPECT_EQ(L"GET", http.requests[0].verb);
    EXPECT_EQ(L"GET", http.requests[1].verb);
}

TEST_F(verified, uses_the_one_connection) {
    serve(fixtures::text_minisig);
    serve(fixtures::text);
    fetch();
    EXPECT_EQ(1u, http.connections.size());
    EXPECT_EQ(server->get(), http.requests.at(0).connection);
    EXPECT_EQ(server->get(), http.requests.at(1).connection);
}

TEST_F(verified, fetches_content_of_several_reads) {
    serve(fixtures::numbers_minisig);
    serve(fixtures::numbers());
    fetch();
    EXPECT_EQ(fixtures::numbers(), contents());
}

TEST_F(verified, fetches_nothing_where_nothing_is_signed) {
    serve(fixtures::empty_minisig);
    fetch();
    EXPECT_EQ(1u, http.requests.size());
    EXPECT_EQ(0u, destination.size());
}

TEST_F(verified, asks_only_for_the_signature_when_the_content_is_there) {
    fixtures::fill(destination, fixtures::text);
    serve(fixtures::text_minisig);
    fetch();
    EXPECT_EQ((wide_strings{L"/folder/name.txt.minisig"}), http.paths());
    EXPECT_EQ(fixtures::text, contents());
}

TEST_F(verified, looks_at_what_is_there_from_its_start) {
    fixtures::fill(destination, fixtures::text);
    destination.seek(0, corvo::stream::seek_end);
    serve(fixtures::text_minisig);
    fetch();
    EXPECT_EQ(1u, http.requests.size());
}

TEST_F(verified, cuts_off_what_is_left_of_a_longer_older_content) {
    fixtures::fill(destination, fixtures::numbers());
    serve(fixtures::text_minisig);
    serve(fixtures::text);
    fetch();
    EXPECT_EQ(2u, http.requests.size());
    EXPECT_EQ(fixtures::text, contents());
}

TEST_F(verified, cuts_off_everything_when_the_signed_content_is_empty) {
    fixtures::fill(destination, fixtures::text);
    serve(fixtures::empty_minisig);
    serve("");
    fetch();
    EXPECT_EQ(2u, http.requests.size());
    EXPECT_EQ(0u, destination.size());
}

TEST_F(verified, replaces_a_content_with_the_right_beginning) {
    fixtures::fill(destination, std::string(fixtures::text) + "more");
    serve(fixtures::text_minisig);
    serve(fixtures::text);
    fetch();
    EXPECT_EQ(fixtures::text, contents());
}

TEST_F(verified, replaces_a_partial_download) {
    fixtures::fill(destination, fixtures::numbers().substr(0, 10000));
    serve(fixtures::numbers_minisig);
    serve(fixtures::numbers());
    fetch();
    EXPECT_EQ(fixtures::numbers(), contents());
}

TEST_F(verified, does_not_care_what_the_trusted_comment_says) {
    std::string file(fixtures::text_minisig);
    const auto comment = file.find("\ntrusted comment: ");
    ASSERT_NE(std::string::npos, comment);
    file.replace(comment, std::string::npos, "\ntrusted comment: quite another one\nAAAA\n");
    serve(file);
    serve(fixtures::text);
    fetch();
    EXPECT_EQ(fixtures::text, contents());
}

TEST_F(verified, refuses_content_that_was_not_signed) {
    serve(fixtures::text_minisig);
    serve("Halvoro\nother content!\n");
    test::expect_throw<std::runtime_error>("Invalid Minisign signature", [&] { fetch(); });
    EXPECT_EQ("Halvoro\nother content!\n", contents()) << "it remains; the caller must not use it";
}

TEST_F(verified, cuts_off_older_content_before_it_judges_the_new) {
    fixtures::fill(destination, fixtures::numbers());
    serve(fixtures::text_minisig);
    serve("bad");
    test::expect_throw<std::runtime_error>("Invalid Minisign signature", [&] { fetch(); });
    EXPECT_EQ("bad", contents());
}

TEST_F(verified, refuses_content_cut_short) {
    serve(fixtures::numbers_minisig);
    serve(fixtures::numbers().substr(0, 18892));
    test::expect_throw<std::runtime_error>("Invalid Minisign signature", [&] { fetch(); });
}

TEST_F(verified, refuses_a_signature_by_a_stranger_before_the_content_is_fetched) {
    serve(fixtures::text_stranger_minisig);
    test::expect_throw<std::runtime_error>("Untrusted Minisign key", [&] { fetch(); });
    EXPECT_EQ(1u, http.requests.size());
}

TEST_F(verified, refuses_a_legacy_signature_before_the_content_is_fetched) {
    serve(fixtures::text_legacy_minisig);
    test::expect_throw<std::runtime_error>("Unsupported Minisign signature", [&] { fetch(); });
    EXPECT_EQ(1u, http.requests.size());
}

TEST_F(verified, refuses_a_legacy_signature_even_of_content_that_is_there) {
    fixtures::fill(destination, fixtures::text);
    serve(fixtures::text_legacy_minisig);
    test::expect_throw<std::runtime_error>("Unsupported Minisign signature", [&] { fetch(); });
}

TEST_F(verified, reports_an_untrusted_key_before_an_unsupported_kind) {
    serve(fixtures::text_legacy_minisig);
    trusted_key other = test_key;
    other.id ^= 1;
    test::expect_throw<std::runtime_error>("Untrusted Minisign key", [&] {
        verified_fetch(*server, url, headers, "text/plain", &other, 1, destination, nullptr);
    });
}

TEST_F(verified, takes_the_key_from_a_table_of_several) {
    trusted_key keys[3] = {test_key, test_key, test_key};
    keys[0].id = 1;
    keys[0].key = {};
    keys[2].key = {}; // the first record of an id counts
    serve(fixtures::text_minisig);
    serve(fixtures::text);
    verified_fetch(*server, url, headers, "text/plain", keys, 3, destination, nullptr);
    EXPECT_EQ(fixtures::text, contents());
}

// A comment makes the file as long as one likes.
std::string minisig_of_size(std::size_t size) {
    const std::string whole(fixtures::text_minisig);
    const std::string comment = "untrusted comment: ";
    return comment + std::string(size - whole.size() - comment.size() - 1, 'x') + "\n" + whole;
}

TEST_F(verified, takes_a_signature_file_of_65536_bytes) {
    serve(minisig_of_size(65536));
    serve(fixtures::text);
    fetch();
    EXPECT_EQ(fixtures::text, contents());
}

TEST_F(verified, refuses_a_longer_signature_file_as_soon_as_it_is_too_long) {
    auto endless = fake_winhttp::answer("");
    endless.pieces.assign(1000, std::string(8192, 'x'));
    http.replies.push_back(endless);
    expect_nested<corvo::stream::limit_exceeded>("Failed to load Minisign signature",
                                                 "larger than 65536 bytes", [&] { fetch(); });
    EXPECT_EQ(9u, http.count("WinHttpReadData"));
    EXPECT_EQ(1u, http.requests.size());

    serve(minisig_of_size(65537));
    expect_nested<corvo::stream::limit_exceeded>("Failed to load Minisign signature",
                                                 "larger than 65536 bytes", [&] { fetch(); });
}

// An error page may be longer than what was asked for, and need not end.
TEST_F(verified, tells_the_status_of_an_error_page_that_is_longer_than_any_signature_file) {
    for (const DWORD status : {DWORD{404}, DWORD{407}, DWORD{503}}) {
        serve(std::string(70000, 'x'), status);
        expect_nested<std::runtime_error>("Failed to load Minisign signature", std::to_string(status),
                                          [&] { fetch(); });
        auto endless = fake_winhttp::answer("", status);
        endless.pieces.assign(1000, std::string(8192, 'x'));
        http.replies.push_back(endless);
        const std::size_t reads = http.count("WinHttpReadData");
        expect_nested<std::runtime_error>("Failed to load Minisign signature", std::to_string(status),
                                          [&] { fetch(); });
        EXPECT_EQ(reads + 9, http.count("WinHttpReadData"));
    }
}

TEST_F(verified, tells_the_status_of_an_error_page_that_is_longer_than_its_destination_allows) {
    corvo::stream::bounded_memory_file small(16);
    serve(fixtures::text_minisig);
    serve(std::string(17, 'x'), 404);
    expect_nested<std::runtime_error>("Failed to load content", "404", [&] { fetch_into(small); });
}

// If the head does not say what it is, the limit is all that is known.
TEST_F(verified, tells_the_limit_where_a_page_that_is_too_long_has_no_status_line) {
    auto page = fake_winhttp::answer(std::string(70000, 'x'), 404);
    page.raw_headers = L"404\r\n\r\n";
    http.replies.push_back(page);
    expect_nested<corvo::stream::limit_exceeded>("Failed to load Minisign signature",
                                                 "larger than 65536 bytes", [&] { fetch(); });
}

TEST_F(verified, takes_no_more_content_than_its_destination_allows) {
    corvo::stream::bounded_memory_file small(fixtures::text.size());
    serve(fixtures::text_minisig);
    serve(fixtures::text);
    fetch_into(small);
    EXPECT_EQ(fixtures::text, fixtures::contents(small, small.size()));

    corvo::stream::bounded_memory_file smaller(fixtures::text.size() - 1);
    serve(fixtures::text_minisig);
    serve(fixtures::text);
    expect_nested<corvo::stream::limit_exceeded>(
        "Failed to load content", "larger than " + std::to_string(fixtures::text.size() - 1) + " bytes",
        [&] { fetch_into(smaller); });
    EXPECT_EQ(0u, smaller.size());
}

TEST_F(verified, nests_the_status_of_a_missing_signature) {
    for (const DWORD status : {DWORD{404}, DWORD{500}, DWORD{302}, DWORD{201}, DWORD{204}}) {
        serve(fixtures::text_minisig, status);
        expect_nested<std::runtime_error>("Failed to load Minisign signature", std::to_string(status),
                                          [&] { fetch(); });
    }
    EXPECT_EQ(5u, http.requests.size());
}

TEST_F(verified, nests_the_status_of_missing_content) {
    serve(fixtures::text_minisig);
    serve("not found", 404);
    expect_nested<std::runtime_error>("Failed to load content", "404", [&] { fetch(); });
    EXPECT_EQ("not found", contents());
}

TEST_F(verified, nests_what_is_wrong_with_the_signature_file) {
    serve("");
    expect_nested<std::runtime_error>("Failed to load Minisign signature", "Minisign signature is too short",
                                      [&] { fetch(); });
    serve("untrusted comment: alone\n");
    expect_nested<std::runtime_error>("Failed to load Minisign signature", "Minisign signature is too short",
                                      [&] { fetch(); });
    serve(std::string(100, 'A') + "\n");
    expect_nested<std::runtime_error>("Failed to load Minisign signature", "not a Minisign signature",
                                      [&] { fetch(); });
}

TEST_F(verified, nests_a_failed_transfer_of_the_signature) {
    http.replies.push_back({.at_send = fake_winhttp::request_error{5, 12007}});
    expect_nested<pwrap::http_error>("Failed to load Minisign signature",
                                     http_text("WinHttpSendRequest failed", 12007), [&] { fetch(); });
    http.failures["WinHttpSendRequest"] = {12029};
    expect_nested<pwrap::http_error>("Failed to load Minisign signature",
                                     http_text("WinHttpSendRequest failed", 12029), [&] { fetch(); });
    http.failures["WinHttpOpenRequest"] = {12009};
    expect_nested<pwrap::http_error>("Failed to load Minisign signature",
                                     http_text("WinHttpOpenRequest failed", 12009), [&] { fetch(); });
}

TEST_F(verified, nests_a_failed_transfer_of_the_content) {
    serve(fixtures::text_minisig);
    http.replies.push_back({.pieces = {"Halvoro\n"}, .at_read = fake_winhttp::request_error{3, 12030}});
    expect_nested<pwrap::http_error>("Failed to load content", http_text("WinHttpReadData failed", 12030),
                                     [&] { fetch(); });
    serve(fixtures::text_minisig);
    http.failures["WinHttpSendRequest"] = {0, 12029};
    destination.close();
    expect_nested<pwrap::http_error>("Failed to load content", http_text("WinHttpSendRequest failed", 12029),
                                     [&] { fetch(); });
}

TEST_F(verified, sends_both_requests_again_when_it_is_asked_to) {
    http.failures["WinHttpSendRequest"] = {12032, 12032, 0, 12032, 12032, 12032};
    serve(fixtures::text_minisig);
    serve(fixtures::text);
    fetch();
    EXPECT_EQ(7u, http.count("WinHttpSendRequest"));
    EXPECT_EQ(2u, http.requests.size());
}

TEST_F(verified, nests_a_destination_that_refuses_the_content) {
    failing_file file;
    file.fail_write = true;
    serve(fixtures::text_minisig);
    serve(fixtures::text);
    expect_nested<std::system_error>("Failed to load content", system_text(112), [&] { fetch_into(file); });
}

TEST_F(verified, nests_a_destination_that_cannot_be_truncated) {
    failing_file file;
    file.fail_truncate = true;
    serve(fixtures::text_minisig);
    serve(fixtures::text);
    expect_nested<std::system_error>("Failed to load content", system_text(5), [&] { fetch_into(file); });
}

TEST_F(verified, nests_a_destination_that_cannot_go_to_its_start) {
    failing_file file;
    file.fail_seek = 2; // the first is for the look at what is there
    serve(fixtures::text_minisig);
    expect_nested<std::system_error>("Failed to load content", system_text(131), [&] { fetch_into(file); });
    EXPECT_EQ(1u, http.requests.size());
}

TEST_F(verified, downloads_what_it_cannot_look_at) {
    failing_file file;
    file.fail_seek = 1;
    serve(fixtures::text_minisig);
    serve(fixtures::text);
    fetch_into(file);
    EXPECT_EQ(fixtures::text, fixtures::contents(file, file.size()));
}

TEST_F(verified, reports_the_check_of_what_is_there_and_then_the_download) {
    fixtures::fill(destination, "other");
    serve(fixtures::text_minisig);
    serve(fixtures::text);
    indicator progress;
    fetch(&progress);
    EXPECT_EQ((strings{"1000", "range 0 23", "23"}), progress.log);
}

TEST_F(verified, reports_nothing_while_the_signature_is_fetched) {
    serve(fixtures::text_minisig, 404);
    indicator progress;
    progress.cancel_at = 1;
    expect_nested<std::runtime_error>("Failed to load Minisign signature", "404", [&] { fetch(&progress); });
    EXPECT_EQ(0, progress.asked);
    EXPECT_TRUE(progress.log.empty());
}

TEST_F(verified, cancelled_while_it_looks_at_what_is_there_says_so_itself) {
    fixtures::fill(destination, fixtures::text);
    serve(fixtures::text_minisig);
    indicator progress;
    progress.cancel_at = 1;
    test::expect_throw<corvo::user_cancelled>("operation cancelled", [&] { fetch(&progress); });
    EXPECT_EQ(1u, http.requests.size());
}

TEST_F(verified, cancelled_during_the_download_nests_it) {
    serve(fixtures::text_minisig);
    serve(fixtures::text);
    indicator progress;
    progress.cancel_at = 1;
    expect_nested<corvo::user_cancelled>("Failed to load content", "operation cancelled",
                                         [&] { fetch(&progress); });
    EXPECT_EQ(2u, http.requests.size());
}

namespace {

// A file of the disk that goes away when it is closed.
HANDLE temporary_file() {
    wchar_t folder[MAX_PATH + 1];
    wchar_t name[MAX_PATH + 1];
    ::GetTempPathW(MAX_PATH, folder);
    ::GetTempFileNameW(folder, L"vf", 0, name);
    return ::CreateFileW(name, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_ALWAYS,
                         FILE_FLAG_DELETE_ON_CLOSE, nullptr);
}

} // namespace

TEST_F(verified, fills_cuts_and_reuses_a_file_of_the_disk) {
    corvo::stream::file file(temporary_file());
    ASSERT_TRUE(file.ok());
    serve(fixtures::numbers_minisig);
    serve(fixtures::numbers());
    fetch_into(file);
    EXPECT_EQ(18893u, file.size());
    serve(fixtures::text_minisig);
    serve(fixtures::text);
    fetch_into(file);
    EXPECT_EQ(23u, file.size());
    serve(fixtures::text_minisig);
    fetch_into(file);
    EXPECT_EQ(5u, http.requests.size());
    std::string content(24, ' ');
    file.seek(0, corvo::stream::seek_beg);
    content.resize(file.read(content.data(), content.size()));
    EXPECT_EQ(fixtures::text, content);
}

// The content that was read is the signed one, but nobody knows what follows it.
TEST_F(verified, downloads_again_what_cannot_be_read_to_its_end) {
    corvo::stream::file file(temporary_file());
    fixtures::fill(file, fixtures::text);
    int reads = 0;
    support::script read(
        support::ReadFile,
        [&](HANDLE handle, LPVOID data, DWORD length, LPDWORD done, LPOVERLAPPED overlapped) -> BOOL {
            if (++reads > 1) {
                *done = 0;
                ::SetLastError(ERROR_CRC);
                return FALSE;
            }
            return support::ReadFile.real(handle, data, length, done, overlapped);
        });
    serve(fixtures::text_minisig);
    serve(fixtures::text);
    fetch_into(file);
    EXPECT_EQ(2u, http.requests.size());
    EXPECT_EQ(23u, file.size());
}
