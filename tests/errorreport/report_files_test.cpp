// The pair of files that a crash leaves when its report cannot be sent.
#include "errorreport/report_files.h"

#include "platform/errors.h"
#include "tests/errorreport/fake_stack.h"
#include "tests/stream/temporary_folder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using test::bytes;

namespace {

class report_files : public testing::Test {
protected:
    report_files() {
        folder = m_folder.path_of(L"");
        for (const wchar_t* name : {L"0.tzo", L"0.tzr", L"1.tzo", L"1.tzr", L"2.tzo", L"2.tzr"}) {
            m_folder.path_of(name); // removed at the end
        }
    }

    void write(std::span<const wchar_t> notes = {}) {
        corvo::errorreport::write_report_files(stack.what(), notes);
    }

    bool exists(const wchar_t* name) const {
        return ::GetFileAttributesW((folder + name).c_str()) != INVALID_FILE_ATTRIBUTES;
    }

    // The four bytes that the report begins with; the content if it is not a report.
    std::string magic(const wchar_t* name) const {
        const std::string content = test::get_file((folder + name).c_str());
        const auto report = support::inflated(bytes(content.begin(), content.end()));
        return report && report->size() > 4 ? std::string(report->begin(), report->begin() + 4) : content;
    }

    test::fake_stack stack;
    std::wstring folder;

private:
    test::temporary_folder m_folder;
    support::script<decltype(::GetTempPathW)> m_temp{
        support::GetTempPathW, [this](DWORD size, wchar_t* path) -> DWORD {
            EXPECT_EQ(260U, size);
            std::memcpy(path, folder.c_str(), (folder.size() + 1) * sizeof(wchar_t));
            return static_cast<DWORD>(folder.size());
        }};
};

TEST_F(report_files, the_first_pair_is_numbered_0) {
    write();
    EXPECT_EQ("TZO1", magic(L"0.tzo"));
    EXPECT_EQ("TZR1", magic(L"0.tzr"));
    EXPECT_FALSE(exists(L"1.tzo"));
}

TEST_F(report_files, an_existing_short_report_moves_the_pair_to_the_next_number) {
    test::put_file((folder + L"0.tzo").c_str(), "kept");
    write();
    EXPECT_EQ("kept", magic(L"0.tzo"));
    EXPECT_FALSE(exists(L"0.tzr"));
    EXPECT_EQ("TZO1", magic(L"1.tzo"));
    EXPECT_EQ("TZR1", magic(L"1.tzr"));
    write();
    EXPECT_EQ("TZO1", magic(L"2.tzo"));
}

TEST_F(report_files, a_full_report_beside_a_free_number_is_overwritten) {
    test::put_file((folder + L"0.tzo").c_str(), "kept");
    test::put_file((folder + L"1.tzr").c_str(), std::string(100000, 'x'));
    write();
    EXPECT_EQ("TZO1", magic(L"1.tzo"));
    EXPECT_EQ("TZR1", magic(L"1.tzr"));
}

TEST_F(report_files, notes_go_into_both) {
    const std::wstring notes(L"note\0", 5);
    write(notes);
    for (const wchar_t* name : {L"0.tzo", L"0.tzr"}) {
        const std::string content = test::get_file((folder + name).c_str());
        const auto report = support::inflated(bytes(content.begin(), content.end()));
        ASSERT_TRUE(report.has_value());
        EXPECT_THAT(std::string(report->begin(), report->end()), testing::HasSubstr("DOOP"));
    }
}

TEST_F(report_files, are_opened_so_that_nobody_takes_them_meanwhile) {
    struct opening {
        std::wstring path;
        DWORD access, share, disposition, attributes;
    };
    std::vector<opening> opened;
    const support::script create(support::CreateFileW, [&](const wchar_t* path, DWORD access, DWORD share,
                                                           SECURITY_ATTRIBUTES* security, DWORD disposition,
                                                           DWORD attributes, HANDLE pattern) {
        opened.push_back({path, access, share, disposition, attributes});
        return support::CreateFileW.real(path, access, share, security, disposition, attributes, pattern);
    });
    write();
    ASSERT_EQ(2U, opened.size());
    EXPECT_EQ(folder + L"0.tzo", opened[0].path);
    EXPECT_EQ(GENERIC_READ | GENERIC_WRITE, opened[0].access);
    EXPECT_EQ(DWORD{FILE_SHARE_READ}, opened[0].share);
    EXPECT_EQ(DWORD{CREATE_NEW}, opened[0].disposition);
    EXPECT_EQ(DWORD{FILE_FLAG_SEQUENTIAL_SCAN}, opened[0].attributes & FILE_FLAG_SEQUENTIAL_SCAN);
    EXPECT_EQ(folder + L"0.tzr", opened[1].path);
    EXPECT_EQ(GENERIC_READ | GENERIC_WRITE, opened[1].access);
    EXPECT_EQ(0U, opened[1].share);
    EXPECT_EQ(DWORD{CREATE_ALWAYS}, opened[1].disposition);
}

// Runs `write` and returns number and message of the failure.
std::pair<DWORD, std::string> failure(const std::function<void()>& write) {
    try {
        write();
    } catch (const pwrap::win_runtime_error& error) {
        return {error.number(), error.what()};
    }
    return {0, "none"};
}

TEST_F(report_files, a_short_report_that_cannot_be_created_fails) {
    const support::script create(support::CreateFileW, [](auto...) {
        ::SetLastError(ERROR_ACCESS_DENIED);
        return INVALID_HANDLE_VALUE;
    });
    const auto [number, message] = failure([&] { write(); });
    EXPECT_EQ(5U, number);
    EXPECT_EQ("Napaka pri ustvarjanju datoteke TZO: Access denied.", message);
}

// Only ERROR_FILE_EXISTS means that the number is taken.
TEST_F(report_files, other_kinds_of_already_there_are_failures_too) {
    const support::script create(support::CreateFileW, [](auto...) {
        ::SetLastError(ERROR_ALREADY_EXISTS);
        return INVALID_HANDLE_VALUE;
    });
    EXPECT_EQ(183U, failure([&] { write(); }).first);
}

TEST_F(report_files, a_full_report_that_cannot_be_created_fails_and_leaves_the_short_one) {
    const support::script create(support::CreateFileW, [](const wchar_t* path, auto... rest) {
        if (std::wstring(path).ends_with(L".tzr")) {
            ::SetLastError(ERROR_SHARING_VIOLATION);
            return INVALID_HANDLE_VALUE;
        }
        return support::CreateFileW.real(path, rest...);
    });
    const auto [number, message] = failure([&] { write(); });
    EXPECT_EQ(32U, number);
    EXPECT_THAT(message, testing::StartsWith("Napaka pri ustvarjanju datoteke TZR: "));
    EXPECT_EQ("TZO1", magic(L"0.tzo"));
}

TEST_F(report_files, without_a_temporary_folder_nothing_is_written) {
    for (const DWORD answer : {0U, 261U}) {
        const support::script temp(support::GetTempPathW, [&](DWORD, wchar_t*) {
            ::SetLastError(ERROR_PATH_NOT_FOUND);
            return answer;
        });
        const auto [number, message] = failure([&] { write(); });
        EXPECT_EQ(3U, number);
        EXPECT_THAT(message, testing::StartsWith("GetTempPath failed: "));
    }
}

// A folder whose name has a point keeps it.
TEST_F(report_files, the_extension_is_what_follows_the_last_point) {
    write();
    EXPECT_NE(std::wstring::npos, folder.find(L'.'));
    EXPECT_TRUE(exists(L"0.tzr"));
}

} // namespace
