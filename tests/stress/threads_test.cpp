// The portable pieces on several threads at once. They keep no state in common but tables that nobody writes, and the one set-up of
// libsodium, which whoever hashes first makes. With ThreadSanitizer each of these tests is a proof; without it they say at least that
// every thread comes to the right result.
#include "errorreport/note_list.h"
#include "errorreport/reply_text.h"
#include "errorreport/report_format.h"
#include "http/parser/url_parts.h"
#include "minisign/verifier.h"
#include "platform/exception_message.h"
#include "stream/cache.h"
#include "stream/memory_file.h"
#include "stream/zlib_writer.h"
#include "tests/minisign/fixtures.h"
#include "tests/support/inflated.h"
#include "updater/description.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <exception>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int thread_count = 8;
constexpr int rounds = 50;

// Runs `work` on every thread, none of which begins before all are there. The work throws if its result is not the right one.
void on_all_threads(const std::function<void(int thread)>& work) {
    std::atomic<int> ready{0};
    std::array<std::exception_ptr, thread_count> failures;
    std::vector<std::thread> threads;
    for (int number = 0; number < thread_count; ++number) {
        threads.emplace_back([&, number] {
            ++ready;
            while (ready < thread_count) {
                std::this_thread::yield();
            }
            try {
                work(number);
            } catch (...) {
                failures[static_cast<std::size_t>(number)] = std::current_exception();
            }
        });
    }
    for (std::thread& each : threads) {
        each.join();
    }
    for (const std::exception_ptr& failure : failures) {
        if (failure) {
            EXPECT_NO_THROW(std::rethrow_exception(failure));
        }
    }
}

void require(bool right, const char* what) {
    if (!right) {
        throw std::runtime_error(what);
    }
}

corvo::minisign::signature read_signature(std::string_view text) {
    corvo::stream::memory_file file;
    fixtures::fill(file, text);
    return corvo::minisign::read_signature(file);
}

bool verifies(std::string_view content, const corvo::minisign::signature& made) {
    corvo::stream::memory_file file;
    fixtures::fill(file, content);
    return corvo::minisign::content_verifies(file, made, fixtures::test_key, nullptr);
}

} // namespace

// The name puts it before the other tests that hash, in an own process (--gtest_filter) it is the first one that does.
TEST(threads, begin_to_hash_at_the_same_time) {
    on_all_threads([](int) {
        require(verifies(fixtures::text, read_signature(fixtures::text_minisig)),
                "the signature is the text's");
    });
}

TEST(threads, verify_with_one_signature_and_one_key) {
    const corvo::minisign::signature made = read_signature(fixtures::text_minisig);
    on_all_threads([&](int) {
        for (int round = 0; round < rounds; ++round) {
            const auto& key = corvo::minisign::find_trusted_key(made, &fixtures::test_key, 1);
            require(key.id == fixtures::test_key.id, "the key is the table's");
            require(verifies(fixtures::text, made), "the signature is the text's");
            require(!verifies("another text", made), "the signature does not fit another text");
        }
    });
}

TEST(threads, parse_one_address) {
    const std::string address = "HTTPS://user:word@[2001:db8::1%25eth0]:8443/a/b?c#d";
    const webio::url_parts expected = webio::parse_url(address);
    on_all_threads([&](int) {
        for (int round = 0; round < rounds; ++round) {
            const webio::url_parts parts = webio::parse_url(address);
            require(parts.host == expected.host && parts.path == expected.path && parts.port == 8443,
                    "the address reads the same each time");
            try {
                webio::parse_url("ftp://updates.tavrin.example/");
                require(false, "another scheme is refused");
            } catch (const std::invalid_argument&) { // as it should be
            }
        }
    });
}

TEST(threads, read_one_description) {
    on_all_threads([](int) {
        for (int round = 0; round < rounds; ++round) {
            corvo::stream::memory_file file;
            fixtures::fill(file, "3040100\r\nHalvoro 3.4.1\nhttp://updates.tavrin.example/Halvoro/\n");
            const corvo::updater::update_description found = corvo::updater::read_description(file);
            require(found.version == 0x03040100 && found.label == "Halvoro 3.4.1", "the description is read");
        }
    });
}

TEST(threads, compose_reports) {
    using namespace corvo::errorreport;
    on_all_threads([](int thread) {
        for (int round = 0; round < rounds / 10; ++round) {
            corvo::stream::memory_file file;
            const std::array<std::uint64_t, 1> parameters{static_cast<std::uint64_t>(thread)};
            {
                corvo::zlib_writer out(file);
                write_header(out, report_kind::brief, 0xAA64);
                write_record(out, {0xC0000005, 0, 0x140001000, parameters});
                write_module(out, report_kind::brief, {u"lumaris.exe", 1, 2, 0x140000000});
                write_function(out, static_cast<std::uint64_t>(thread));
            }
            const auto size = static_cast<std::size_t>(file.size());
            const auto report = support::inflated({file.data(), file.data() + size});
            require(report.has_value() && report->size() > 8, "the report is whole");
            // The last of the little-endian function block.
            require((*report)[report->size() - 8] == thread, "the report is this thread's");
        }
    });
}

TEST(threads, read_files_through_caches) {
    const std::string numbers = fixtures::numbers();
    on_all_threads([&](int) {
        corvo::stream::memory_file file;
        fixtures::fill(file, numbers);
        corvo::stream::cache cached(file, 512);
        std::string all(numbers.size(), '\0');
        require(cached.read(all.data(), all.size()) == all.size() && all == numbers,
                "the contents are the file's");
    });
}

TEST(threads, put_a_failure_into_words) {
    on_all_threads([](int) {
        for (int round = 0; round < rounds; ++round) {
            try {
                try {
                    throw std::runtime_error("404");
                } catch (...) {
                    std::throw_with_nested(std::runtime_error("Failed to load Minisign signature"));
                }
            } catch (const std::exception& error) {
                require(corvo::exception_message(error) == "Failed to load Minisign signature: 404",
                        "the message");
            }
        }
    });
}

TEST(threads, decide_on_replies) {
    using namespace corvo::errorreport;
    on_all_threads([](int) {
        for (int round = 0; round < rounds; ++round) {
            const content_type type = split_content_type("Text/Plain; charset=Windows-1250");
            require(is_plain_text(type.media_type) &&
                        decoding_for(type.charset) == reply_decoding::windows_1250,
                    "the reply is text");
        }
    });
}

// The list has no lock of its own; the component puts one around it, as is done here.
TEST(threads, note_at_the_same_time) {
    corvo::errorreport::note_list notes;
    std::mutex lock;
    on_all_threads([&](int thread) {
        for (int round = 0; round < rounds; ++round) {
            corvo::errorreport::note_list::entry entry(std::wstring(1, static_cast<wchar_t>(L'a' + thread)));
            const std::lock_guard held(lock);
            notes.exchange(entry);
            require(notes.joined().size() <= 20, "at most ten notes of one character, each with its zero");
        }
    });
    EXPECT_EQ(20U, notes.joined().size());
}
