// The program's resources, read from the built program by way of the system, as the event viewer and the
// loader do.
#include "platform/system_strings.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

// lumaris.exe, which is built beside the test program's folder, loaded as data.
class resources : public testing::Test {
protected:
    void SetUp() override {
        std::wstring path;
        pwrap::GetModuleFileNameW(nullptr, path);
        path.resize(path.rfind(L'\\'));
        m_path = path + L"\\..\\updater\\lumaris.exe";
        m_program = ::LoadLibraryExW(m_path.c_str(), nullptr,
                                     LOAD_LIBRARY_AS_DATAFILE | LOAD_LIBRARY_AS_IMAGE_RESOURCE);
        ASSERT_NE(nullptr, m_program)
            << "no ../updater/lumaris.exe beside the test program: " << ::GetLastError();
    }
    void TearDown() override {
        if (m_program != nullptr) {
            ::FreeLibrary(m_program);
        }
    }

    // The text as it stands in the message table, "none" where it has none.
    std::wstring message(DWORD id, DWORD language) const {
        wchar_t buffer[1024];
        const DWORD length = ::FormatMessageW(FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_IGNORE_INSERTS,
                                              m_program, id, language, buffer, 1024, nullptr);
        return length == 0 ? L"none" : std::wstring(buffer, length);
    }

    // The same with its insertion strings in place.
    std::wstring message(DWORD id, DWORD language, std::vector<const wchar_t*> strings) const {
        wchar_t buffer[1024];
        const DWORD length = ::FormatMessageW(
            FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_ARGUMENT_ARRAY, m_program, id, language, buffer,
            1024, reinterpret_cast<va_list*>(const_cast<wchar_t**>(strings.data())));
        return length == 0 ? L"none" : std::wstring(buffer, length);
    }

    std::wstring version_text(const wchar_t* name) const {
        void* text = nullptr;
        UINT length = 0;
        const std::wstring block = std::wstring(L"\\StringFileInfo\\040904B0\\") + name;
        if (!::VerQueryValueW(version().data(), block.c_str(), &text, &length) || length == 0) {
            return L"none";
        }
        return static_cast<const wchar_t*>(text);
    }

    std::vector<unsigned char>& version() const {
        if (m_version.empty()) {
            DWORD unused = 0;
            m_version.resize(::GetFileVersionInfoSizeW(m_path.c_str(), &unused));
            EXPECT_FALSE(m_version.empty());
            m_version.resize(m_version.size() + 16);
            EXPECT_TRUE(::GetFileVersionInfoW(m_path.c_str(), 0, static_cast<DWORD>(m_version.size()),
                                              m_version.data()));
        }
        return m_version;
    }

    std::wstring m_path;
    HMODULE m_program = nullptr;

private:
    mutable std::vector<unsigned char> m_version;
};

constexpr DWORD english = 1033;
constexpr DWORD slovenian = 1060;

} // namespace

TEST_F(resources, have_the_events_in_english) {
    EXPECT_EQ(L"No connection reported. Skipping %1 programme update check.\r\n", message(2, english));
    EXPECT_EQ(L"Metered connection detected. Skipping %1 programme update check.\r\n", message(3, english));
    EXPECT_EQ(L"Approaching or over the connection data limit. Skipping %1 programme update check.\r\n",
              message(4, english));
    EXPECT_EQ(L"Congested connection reported. Skipping %1 programme update check.\r\n", message(5, english));
    EXPECT_EQ(L"Error checking for %1 programme update: %2\r\n", message(0x80000001, english));
}

TEST_F(resources, have_the_events_in_slovenian) {
    EXPECT_EQ(L"Ni zaznane povezave. Preverjanje posodobitev programa %1 je odlo\x017E"
              L"eno.\r\n",
              message(2, slovenian));
    EXPECT_EQ(
        L"Zaznana povezava z omejenim prenosom podatkov. Preverjanje posodobitev programa %1 je odlo\x017E"
        L"eno.\r\n",
        message(3, slovenian));
    EXPECT_EQ(L"Blizu ali \x010D"
              L"ez koli\x010D"
              L"insko omejitev prenosa podatkov. Preverjanje posodobitev programa "
              L"%1 je odlo\x017E"
              L"eno.\r\n",
              message(4, slovenian));
    EXPECT_EQ(L"Zaznan zastoj v povezavi. Preverjanje posodobitev programa %1 je odlo\x017E"
              L"eno.\r\n",
              message(5, slovenian));
    EXPECT_EQ(L"Pri preverjanju posodobitev programa %1 je pri\x0161lo do napake: %2\r\n",
              message(0x80000001, slovenian));
}

TEST_F(resources, have_the_generic_entries) {
    for (const DWORD language : {english, slovenian}) {
        for (const DWORD id : {0x0UL, 0x80000000UL, 0xC0000000UL}) {
            EXPECT_EQ(L"%1\r\n", message(id, language)) << id << ' ' << language;
        }
    }
}

TEST_F(resources, have_no_other_events) {
    for (const DWORD language : {english, slovenian}) {
        for (const DWORD id : {0x1UL, 0x6UL, 0x7FFFFFFFUL, 0x80000002UL, 0xC0000001UL}) {
            EXPECT_EQ(L"none", message(id, language)) << id << ' ' << language;
        }
    }
}

TEST_F(resources, take_the_insertion_strings_of_the_events) {
    EXPECT_EQ(L"Congested connection reported. Skipping Halvoro programme update check.\r\n",
              message(5, english, {L"Halvoro"}));
    EXPECT_EQ(L"Error checking for Halvoro programme update: 100 %1 of it\r\n",
              message(0x80000001, english, {L"Halvoro", L"100 %1 of it"}));
}

TEST_F(resources, have_version_3_4_0_0) {
    void* found = nullptr;
    UINT length = 0;
    ASSERT_TRUE(::VerQueryValueW(version().data(), L"\\", &found, &length));
    ASSERT_EQ(sizeof(VS_FIXEDFILEINFO), length);
    const auto& fixed = *static_cast<const VS_FIXEDFILEINFO*>(found);
    EXPECT_EQ(0xFEEF04BDU, fixed.dwSignature);
    EXPECT_EQ(0x00030004U, fixed.dwFileVersionMS);
    EXPECT_EQ(0x00000000U, fixed.dwFileVersionLS);
    EXPECT_EQ(0x00030004U, fixed.dwProductVersionMS);
    EXPECT_EQ(0x00000000U, fixed.dwProductVersionLS);
    EXPECT_EQ(1U, fixed.dwFileType); // VFT_APP
    EXPECT_EQ(L"3.4.0.0", version_text(L"FileVersion"));
    EXPECT_EQ(L"3.4.0.0", version_text(L"ProductVersion"));
}

TEST_F(resources, name_product_maker_and_program) {
    EXPECT_EQ(L"Halvoro", version_text(L"ProductName"));
    EXPECT_EQ(L"Tavrin", version_text(L"CompanyName"));
    EXPECT_EQ(L"lumaris.exe", version_text(L"OriginalFilename"));
    EXPECT_EQ(L"Lumaris, the updater of Halvoro", version_text(L"FileDescription"));
}

TEST_F(resources, demand_an_administrator) {
    const HRSRC found = ::FindResourceW(m_program, MAKEINTRESOURCEW(1), MAKEINTRESOURCEW(24));
    ASSERT_NE(nullptr, found);
    const HGLOBAL loaded = ::LoadResource(m_program, found);
    ASSERT_NE(nullptr, loaded);
    const std::string manifest(static_cast<const char*>(::LockResource(loaded)),
                               ::SizeofResource(m_program, found));
    EXPECT_EQ(0, manifest.find("<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"yes\"?>\n<assembly "));
    EXPECT_NE(std::string::npos,
              manifest.find("<requestedExecutionLevel level=\"requireAdministrator\" uiAccess=\"false\"/>"));
    EXPECT_NE(std::string::npos, manifest.find("version=\"3.4.0.0\""));
    EXPECT_TRUE(manifest.ends_with("</assembly>\n"));
}

// The numbers 11 and 24 say what the resources are; under names of their own nothing finds them.
TEST_F(resources, stand_under_the_numbers_of_their_types) {
    std::vector<std::size_t> numbers;
    ::EnumResourceTypesW(
        m_program,
        [](HMODULE, wchar_t* type, LONG_PTR list) -> BOOL {
            reinterpret_cast<std::vector<std::size_t>*>(list)->push_back(reinterpret_cast<std::size_t>(type));
            return TRUE;
        },
        reinterpret_cast<LONG_PTR>(&numbers));
    EXPECT_EQ((std::vector<std::size_t>{6, 11, 16, 24}), numbers);
}
