// How the program is linked, read from the built file itself: what protects it stands in its headers, and nothing else would show
// that a link option got lost.
#include "platform/system_strings.h"
#include "stream/file.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace {

// lumaris.exe, which is built beside the test program's folder, as bytes.
class program : public testing::Test {
protected:
    void SetUp() override {
        std::wstring path;
        pwrap::GetModuleFileNameW(nullptr, path);
        path.resize(path.rfind(L'\\'));
        corvo::stream::file file((path + L"\\..\\src\\updater\\lumaris.exe").c_str(),
                                 corvo::stream::mode_for_reading);
        ASSERT_TRUE(file.ok()) << "no ../src/updater/lumaris.exe beside the test program";
        m_bytes.resize(static_cast<std::size_t>(file.size()));
        EXPECT_EQ(m_bytes.size(), file.read(m_bytes.data(), m_bytes.size()));
        const auto dos = at<IMAGE_DOS_HEADER>(0);
        ASSERT_EQ(IMAGE_DOS_SIGNATURE, dos.e_magic);
        m_headers = static_cast<std::size_t>(dos.e_lfanew);
        headers = at<IMAGE_NT_HEADERS64>(m_headers);
        ASSERT_EQ(DWORD{IMAGE_NT_SIGNATURE}, headers.Signature);
    }

    template <class T> T at(std::size_t offset) const {
        T value{};
        EXPECT_LE(offset + sizeof value, m_bytes.size());
        if (offset + sizeof value <= m_bytes.size()) {
            std::memcpy(&value, m_bytes.data() + offset, sizeof value);
        }
        return value;
    }

    // Where in the file what will lie at this address of the image is.
    std::size_t offset_of(DWORD address) const {
        std::size_t header = m_headers + offsetof(IMAGE_NT_HEADERS64, OptionalHeader) +
                             headers.FileHeader.SizeOfOptionalHeader;
        for (WORD i = 0; i < headers.FileHeader.NumberOfSections;
             ++i, header += sizeof(IMAGE_SECTION_HEADER)) {
            const auto section = at<IMAGE_SECTION_HEADER>(header);
            if (address >= section.VirtualAddress &&
                address - section.VirtualAddress < section.SizeOfRawData) {
                return section.PointerToRawData + (address - section.VirtualAddress);
            }
        }
        ADD_FAILURE() << "nothing in the file for " << address;
        return 0;
    }

    // A field of the load configuration (PE/COFF 6.3.8; this compiler's headers have an older, shorter one).
    template <class T> T load_configuration(std::size_t field) const {
        const auto& directory = headers.OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_LOAD_CONFIG];
        const std::size_t begin = offset_of(directory.VirtualAddress);
        EXPECT_LE(field + sizeof(T), at<DWORD>(begin)) << "the configuration ends before";
        return at<T>(begin + field);
    }

    std::string_view text() const { return {m_bytes.data(), m_bytes.size()}; }

    IMAGE_NT_HEADERS64 headers{};

private:
    std::vector<char> m_bytes;
    std::size_t m_headers = 0;
};

} // namespace

TEST_F(program, is_for_the_processor_that_these_tests_are_for) {
#ifdef __aarch64__
    EXPECT_EQ(0xAA64, headers.FileHeader.Machine);
#else
    EXPECT_EQ(0x8664, headers.FileHeader.Machine);
#endif
    EXPECT_EQ(0x020B, headers.OptionalHeader.Magic); // PE32+
}

TEST_F(program, has_no_window_of_its_own) {
    EXPECT_EQ(2, headers.OptionalHeader.Subsystem); // IMAGE_SUBSYSTEM_WINDOWS_GUI: 3 would open a console
}

TEST_F(program, is_loaded_at_an_address_that_nobody_can_guess) {
    EXPECT_NE(0, headers.OptionalHeader.DllCharacteristics & 0x0040) << "dynamic base";
    EXPECT_NE(0, headers.OptionalHeader.DllCharacteristics & 0x0020) << "high entropy";
    EXPECT_EQ(0, headers.FileHeader.Characteristics & IMAGE_FILE_RELOCS_STRIPPED);
    EXPECT_NE(0U, headers.OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_BASERELOC].Size);
}

TEST_F(program, does_not_execute_data) {
    EXPECT_NE(0, headers.OptionalHeader.DllCharacteristics & 0x0100);
}

TEST_F(program, has_its_indirect_calls_checked) {
    EXPECT_NE(0, headers.OptionalHeader.DllCharacteristics & 0x4000);
    const auto flags = load_configuration<DWORD>(144);
    EXPECT_NE(0U, flags & 0x0100) << "instrumented";
    EXPECT_NE(0U, flags & 0x0400) << "with its table of functions";
    EXPECT_LT(100U, load_configuration<ULONGLONG>(136)) << "functions in it";
}

TEST_F(program, loads_libraries_from_the_systems_folder_only) {
    EXPECT_EQ(0x0800, load_configuration<WORD>(78));
}

TEST_F(program, names_its_pdb_without_a_folder) {
    const auto& directory = headers.OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_DEBUG];
    const std::size_t begin = offset_of(directory.VirtualAddress);
    std::vector<std::string> names;
    for (std::size_t i = 0; i < directory.Size / sizeof(IMAGE_DEBUG_DIRECTORY); ++i) {
        const auto entry = at<IMAGE_DEBUG_DIRECTORY>(begin + i * sizeof(IMAGE_DEBUG_DIRECTORY));
        if (entry.Type == IMAGE_DEBUG_TYPE_CODEVIEW) {
            // "RSDS", a GUID, an age, the name
            names.emplace_back(text().substr(entry.PointerToRawData + 24).data());
        }
    }
    EXPECT_EQ((std::vector<std::string>{"lumaris.pdb"}), names);
}

TEST_F(program, holds_no_path_of_the_machine_that_built_it) {
    EXPECT_EQ(std::string_view::npos, text().find("/src/"));
    EXPECT_EQ(std::string_view::npos, text().find("/build/"));
}

TEST_F(program, holds_no_symbols) {
    EXPECT_EQ(0U, headers.FileHeader.PointerToSymbolTable);
    EXPECT_EQ(0U, headers.FileHeader.NumberOfSymbols);
}

// A time would make every build another program. A hash of the program stands in its place, which a report contains.
TEST_F(program, says_by_a_hash_and_not_by_a_time_which_build_it_is) {
    const auto& directory = headers.OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_DEBUG];
    const std::size_t begin = offset_of(directory.VirtualAddress);
    bool reproducible = false;
    for (std::size_t i = 0; i < directory.Size / sizeof(IMAGE_DEBUG_DIRECTORY); ++i) {
        reproducible |= at<IMAGE_DEBUG_DIRECTORY>(begin + i * sizeof(IMAGE_DEBUG_DIRECTORY)).Type == 16;
    }
    EXPECT_TRUE(reproducible);
    EXPECT_NE(0U, headers.FileHeader.TimeDateStamp);
}
