// The program's resources, read from the built program by way of the system, as the event viewer and the
// loader do.
#include "expected_version.h"
#include "platform/system_strings.h"
#include "tests/support/string_table.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <algorithm>
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
        m_path = path + L"\\..\\src\\updater\\lumaris.exe";
        m_program = ::LoadLibraryExW(m_path.c_str(), nullptr,
                                     LOAD_LIBRARY_AS_DATAFILE | LOAD_LIBRARY_AS_IMAGE_RESOURCE);
        ASSERT_NE(nullptr, m_program)
            << "no ../src/updater/lumaris.exe beside the test program: " << ::GetLastError();
    }
    void TearDown() override {
        if (m_program != nullptr) {
            ::FreeLibrary(m_program);
        }
    }

    // The text as it stands in the message table, "none" if it has none.
    std::wstring message(DWORD id, DWORD language) const {
        wchar_t buffer[1024];
        const DWORD length = ::FormatMessageW(FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_IGNORE_INSERTS,
                                              m_program, id, language, buffer, 1024, nullptr);
        return length == 0 ? L"none" : std::wstring(buffer, length);
    }

    // The same with its insertion strings in place.
    std::wstring message(DWORD id, DWORD language, const std::vector<const wchar_t*>& strings) const {
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

struct dialog_string {
    UINT id;
    std::wstring english;
    std::wstring slovenian;
    std::wstring albanian; // with the partner of the test builds
};

const dialog_string dialog_strings[] = {
    {28656, L"en", L"sl", L"sq"},
    {28657, L"Unexpected Error", L"Nepričakovana napaka", L"Gabim i papritur"},
    {28658, L"Unexpected error occurred while executing »%.*ls« programme or one of its modules.",
     L"Med izvajanjem programa »%.*ls« je v njem ali enemu izmed njegovih modulov prišlo do nepričakovane "
     L"napake.",
     L"Gjatë ekzekutimit të programit »%.*ls« ndodhi një gabim i papritur në të ose në një nga modulet e "
     L"tij."},
    {28659,
     L"The programme will send an error report to Tavrin server now. May it attach the following text to "
     L"help development personnel resolve the issue a lot?",
     L"Program bo zdaj poslal poročilo o napaki Tavrinovemu strežniku. Mu sme priložiti tudi spodnje "
     L"besedilo, ki bi razvojnemu osebju zelo pomagalo pri odpravi napake?",
     L"Programi do të dërgojë tani një raport gabimi te serveri i kompanisë Partneri \"Provë\" 100%. A mund "
     L"të shtojë në të edhe tekstin e mëposhtëm, që do ta ndihmonte shumë ekipin e zhvillimit në zgjidhjen e "
     L"problemit?"},
    {28661, L"The programme sent technical error report to Tavrin server, which replied with:\n\n%.*ls",
     L"Program je tehnično poročilo o napaki poslal Tavrinovemu strežniku, ki je vrnil naslednji "
     L"odgovor:\n\n%.*ls",
     L"Programi e dërgoi raportin teknik të gabimit te serveri i kompanisë Partneri \"Provë\" 100%%, i cili "
     L"dha këtë përgjigje:\n\n%.*ls"},
    {28662,
     L"The programme sent technical error report to Tavrin server. However, the following issue occurred "
     L"during the receiving:\n\n%.*ls",
     L"Program je tehnično poročilo o napaki poslal Tavrinovemu strežniku, a je pri sprejemu prišlo do "
     L"naslednje težave:\n\n%.*ls",
     L"Programi e dërgoi raportin teknik të gabimit te serveri i kompanisë Partneri \"Provë\" 100%%, por "
     L"gjatë marrjes së tij ndodhi problemi i mëposhtëm:\n\n%.*ls"},
    {28663, L"The programme tried to send technical error report to Tavrin Server, but failed unfortunately.",
     L"Program je skušal poslati tehnično poročilo o napaki Tavrinovemu strežniku, a mu to žal ni uspelo.",
     L"Programi u përpoq ta dërgonte raportin teknik të gabimit te serveri i kompanisë Partneri \"Provë\" "
     L"100%, por fatkeqësisht nuk ia doli."},
    {28664, L"It saved the error report to a file successfully and shall send it at its next start.",
     L"Poročilo o napaki je uspešno shranil v datoteko in ga bo poskusil poslati ob svojem naslednjem "
     L"zagonu.",
     L"Ai e ruajti me sukses raportin e gabimit në një skedar dhe do ta dërgojë gjatë nisjes së ardhshme."},
    {28665, L"It tried to save the error report to a file. However, this failed too: %hs",
     L"Poročilo o napaki je poskusil shraniti v datoteko, a mu tudi to ni uspelo: %hs",
     L"Ai u përpoq ta ruante raportin e gabimit në një skedar, por edhe kjo dështoi: %hs"},
    {28666, L"We sincerely apologize for the inconvenience. The programme will now close.",
     L"Za nevšečnosti se vam iskreno opravičujemo. Program se bo zdaj zaprl.",
     L"Ju kërkojmë sinqerisht ndjesë për shqetësimin. Programi tani do të mbyllet."},
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

TEST_F(resources, have_the_version_that_was_built) {
    void* found = nullptr;
    UINT length = 0;
    ASSERT_TRUE(::VerQueryValueW(version().data(), L"\\", &found, &length));
    ASSERT_EQ(sizeof(VS_FIXEDFILEINFO), length);
    const auto& fixed = *static_cast<const VS_FIXEDFILEINFO*>(found);
    EXPECT_EQ(0xFEEF04BDU, fixed.dwSignature);
    EXPECT_EQ(expected::major << 16 | expected::minor, fixed.dwFileVersionMS);
    EXPECT_EQ(expected::patch << 16, fixed.dwFileVersionLS);
    EXPECT_EQ(expected::major << 16 | expected::minor, fixed.dwProductVersionMS);
    EXPECT_EQ(expected::patch << 16, fixed.dwProductVersionLS);
    EXPECT_EQ(1U, fixed.dwFileType);        // VFT_APP
    EXPECT_EQ(0x00040004U, fixed.dwFileOS); // VOS_NT_WINDOWS32
    EXPECT_EQ(0U, fixed.dwFileFlags & fixed.dwFileFlagsMask) << "no debugging build, no private one";
    EXPECT_EQ(0x3FU, fixed.dwFileFlagsMask);
    const std::string four = std::string(expected::version) + ".0";
    EXPECT_EQ(std::wstring(four.begin(), four.end()), version_text(L"FileVersion"));
    EXPECT_EQ(std::wstring(four.begin(), four.end()), version_text(L"ProductVersion"));
}

// By it whoever shows the texts finds the block that they stand in.
TEST_F(resources, say_the_language_of_the_version_texts) {
    void* found = nullptr;
    UINT length = 0;
    ASSERT_TRUE(::VerQueryValueW(version().data(), L"\\VarFileInfo\\Translation", &found, &length));
    ASSERT_EQ(4U, length);
    EXPECT_EQ(0x0409, static_cast<const WORD*>(found)[0]);
    EXPECT_EQ(0x04B0, static_cast<const WORD*>(found)[1]);
}

TEST_F(resources, name_product_maker_and_program) {
    EXPECT_EQ(L"Halvoro", version_text(L"ProductName"));
    EXPECT_EQ(L"Tavrin", version_text(L"CompanyName"));
    EXPECT_EQ(L"lumaris.exe", version_text(L"OriginalFilename"));
    EXPECT_EQ(L"lumaris", version_text(L"InternalName"));
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
    EXPECT_NE(std::string::npos, manifest.find(std::string("version=\"") + expected::version + ".0\""));
    EXPECT_TRUE(manifest.ends_with("</assembly>\n"));
    // Windows 10 and 11; without it Windows reports an older system to the program.
    EXPECT_NE(std::string::npos,
              manifest.find("<supportedOS Id=\"{8e0f7a12-bfb3-4fe8-b9a5-48fd50a15a9a}\"/>"));
}

// All 16 bits distinguish the languages: a block that stands under another sublanguage is found by nobody who asks for it.
TEST_F(resources, stand_under_the_languages_of_their_texts) {
    const auto languages = [&](WORD type, WORD name) {
        std::vector<WORD> found;
        ::EnumResourceLanguagesW(
            m_program, MAKEINTRESOURCEW(type), MAKEINTRESOURCEW(name),
            [](HMODULE, const wchar_t*, const wchar_t*, WORD language, LONG_PTR list) -> BOOL {
                reinterpret_cast<std::vector<WORD>*>(list)->push_back(language);
                return TRUE;
            },
            reinterpret_cast<LONG_PTR>(&found));
        std::sort(found.begin(), found.end());
        return found;
    };
    EXPECT_EQ((std::vector<WORD>{0x0409, 0x0424}), languages(11, 1));
    EXPECT_EQ((std::vector<WORD>{0x0409, 0x041C, 0x0424}), languages(6, 1792));
    EXPECT_EQ((std::vector<WORD>{0x0409}), languages(16, 1));
    EXPECT_EQ((std::vector<WORD>{0x0000}), languages(24, 1));
}

// Read from the program, and from the test program, which gets them the same way.
TEST_F(resources, have_the_texts_of_the_error_reporting_in_three_languages) {
    for (const HMODULE module : {m_program, ::GetModuleHandleW(nullptr)}) {
        for (const dialog_string& each : dialog_strings) {
            EXPECT_EQ(each.english, support::string_of(module, each.id, support::english));
            EXPECT_EQ(each.slovenian, support::string_of(module, each.id, support::slovenian));
            EXPECT_EQ(each.albanian, support::string_of(module, each.id, support::albanian));
        }
    }
}

TEST_F(resources, have_no_other_texts) {
    for (const WORD language : {support::english, support::slovenian, support::albanian}) {
        for (const UINT id : {28660U, 28667U, 28668U, 28669U, 28670U, 28671U}) {
            EXPECT_EQ(L"", support::string_of(m_program, id, language)) << id << ' ' << language;
        }
    }
    std::vector<std::size_t> blocks;
    ::EnumResourceNamesW(
        m_program, MAKEINTRESOURCEW(6),
        [](HMODULE, const wchar_t*, wchar_t* name, LONG_PTR list) -> BOOL {
            reinterpret_cast<std::vector<std::size_t>*>(list)->push_back(reinterpret_cast<std::size_t>(name));
            return TRUE;
        },
        reinterpret_cast<LONG_PTR>(&blocks));
    EXPECT_EQ((std::vector<std::size_t>{1792}), blocks); // 28656 to 28671
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
