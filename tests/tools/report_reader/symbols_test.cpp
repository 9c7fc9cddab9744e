#include "tools/report_reader/symbols.h"

#include "tools/report_reader/pdb.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace corvo::report_reader;

// In the order and with the layout of llvm-pdbutil 19: offsets of functions are decimal, those of lines hexadecimal.
constexpr const char* dump = R"(

                           Lines                            
============================================================
Mod 0000 | `/toolchain/lib/crt2u.o`: 
Mod 0001 | `run.cpp.obj`: 
/tree (copy)/run.cpp (MD5: 07A9662622AE966F35B5774F5E4C916B)
  0001:00000100-00000140, line/addr entries = 5
    10 00000100 !   11 00000108   0xFEEFEE 00000110 !   13 00000120 ! 
     0 00000130 ! 
  
/tree/handle.h (no checksum)
  0002:00000000-00000010, line/addr entries = 1
   131 00000000 ! 
  
Mod 0002 | `other.cpp.obj`: 
(unknown file name offset 0)
  0001:00000100-00000140, line/addr entries = 5
    70 00000100 !   71 00000108   0xFEEFEE 00000110 !   73 00000120 ! 
     0 00000130 ! 
  
  0001:00000200-00000240, line/addr entries = 1
    99 00000200 ! 
  

                       Public Symbols                       
============================================================
  Records
   59956 | S_PUB32 [size = 40] `__imp_WinHttpQueryHeaders`
           flags = none, addr = 0001:0260
   56261 | S_PUB32 [size = 36] `_Z6runnerv`
           flags = function, addr = 0001:0256
   56260 | S_PUB32 [size = 36] `_Z3runPv`
           flags = function, addr = 0001:0256
   56262 | S_PUB32 [size = 36] `memcpy`
           flags = function, addr = 0001:0512
   56263 | S_PUB32 [size = 36] `_ZN1a1bEv`
           flags = function, addr = 0001:0512

                          Symbols                           
============================================================
Mod 0001 | `run.cpp.obj`: 
     4 | S_OBJNAME [size = 72] sig=0, `run.cpp.obj`
   140 | S_LDATA32 [size = 44] ``anonymous namespace'::events`
         type = 0x102B (const pwrap::event_log), addr = 0001:0264
   192 | S_GPROC32 [size = 68] `run`
         parent = 0, end = 476, addr = 0001:0256, code size = 64
         type = `0x101B (void ())`, debug start = 0, debug end = 0, flags = opt debuginfo
   500 | S_LPROC32 [size = 68] ``anonymous namespace'::`dynamic initializer'`
         parent = 0, end = 600, addr = 0002:0000, code size = 32
   

                      Section Headers                       
============================================================
  
  SECTION HEADER #1
     .text name
     47986 virtual size
      1000 virtual address
     47A00 size of raw data
  
  SECTION HEADER #2
     .more name
       100 virtual size
     9A000 virtual address


                  Original Section Headers                  
============================================================
  
  SECTION HEADER #1
     .text name
         0 virtual address
)";

void expect_place(std::uint64_t offset, bool is_return_address, const std::string& function,
                  std::uint64_t function_offset, const std::string& source) {
    const std::optional<code_place> place = symbol_table(dump).find(offset, is_return_address);
    ASSERT_TRUE(place.has_value()) << std::hex << offset;
    EXPECT_EQ(place->function, function);
    EXPECT_EQ(place->function_offset, function_offset);
    EXPECT_EQ(place->source, source);
}

TEST(report_reader_symbols, finds_function_and_line) {
    expect_place(0x1100, false, "run(void*)", 0, "/tree (copy)/run.cpp:10");
    expect_place(0x1107, false, "run(void*)", 7, "/tree (copy)/run.cpp:10");
    expect_place(0x1108, false, "run(void*)", 8, "/tree (copy)/run.cpp:11");
    expect_place(0x112F, false, "run(void*)", 0x2F, "/tree (copy)/run.cpp:13");
    expect_place(0x9A004, false, "(anonymous namespace)::`dynamic initializer'", 4, "/tree/handle.h:131");
}

TEST(report_reader_symbols, a_return_address_is_looked_up_in_the_call_before_it) {
    expect_place(0x1108, true, "run(void*)", 8, "/tree (copy)/run.cpp:10");
    // Behind a call that does not return there is nothing, or another function.
    expect_place(0x1140, true, "run(void*)", 0x40, "");
    expect_place(0x1200, false, "a::b()", 0, "");
    EXPECT_FALSE(symbol_table(dump).find(0x1200, true).has_value());
    EXPECT_FALSE(symbol_table(dump).find(0, true).has_value());
}

TEST(report_reader_symbols, code_of_no_line_has_no_source) {
    expect_place(0x1110, false, "run(void*)", 0x10, "");
    expect_place(0x1130, false, "run(void*)", 0x30, "");
    expect_place(0x9A010, false, "(anonymous namespace)::`dynamic initializer'", 0x10, "");
}

TEST(report_reader_symbols, lines_of_no_file_are_no_source) {
    expect_place(0x1210, false, "a::b()", 0x10, "");
}

TEST(report_reader_symbols, what_lies_between_functions_has_no_name) {
    EXPECT_FALSE(symbol_table(dump).find(0x10FF, false).has_value());
    EXPECT_FALSE(symbol_table(dump).find(0x1140, false).has_value());
    EXPECT_FALSE(symbol_table(dump).find(0x9A020, false).has_value());
}

// The size of a public name is not known, so it reaches up to the next one.
TEST(report_reader_symbols, public_names_alone_do) {
    expect_place(0x1300, false, "a::b()", 0x100, "");
}

TEST(report_reader_symbols, damaged_text_gives_what_is_left) {
    const std::string whole = dump;
    for (std::size_t size = 0; size < whole.size(); ++size) {
        const symbol_table table(std::string_view(whole).substr(0, size));
        table.find(0x1108, true);
    }
    EXPECT_TRUE(symbol_table("").empty());
    EXPECT_TRUE(symbol_table("no dump at all\n(\n  0001:\n - , line/addr entries = \n").empty());
}

TEST(report_reader_pdb, belongs_to_the_module_of_its_name) {
    EXPECT_TRUE(is_pdb_of("/some/where/lumaris.pdb", "lumaris.exe"));
    EXPECT_TRUE(is_pdb_of("Lumaris.PDB", "LUMARIS.exe"));
    EXPECT_TRUE(is_pdb_of("a.b.pdb", "a.b.dll"));
    EXPECT_FALSE(is_pdb_of("lumaris.pdb", "ntdll.dll"));
    EXPECT_FALSE(is_pdb_of("lumaris.pdb", "lumaris2.exe"));
    EXPECT_FALSE(is_pdb_of("lumaris.d/x.pdb", "lumaris.exe"));
}

} // namespace
