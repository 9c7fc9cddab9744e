# Language level, warnings and code generation of every target in the tree.
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)

add_compile_options(-Wall -Wextra -Wpedantic -Werror -Wshadow -Wconversion -Wsign-conversion -Wold-style-cast
                    -Wnon-virtual-dtor -Woverloaded-virtual -Wimplicit-fallthrough -Wextra-semi -Wundef)
if(WIN32)
    # Windows 10 and later, wide functions. The UCRT's own formatting functions, not MinGW's: the texts use %ls and %hs
    # with Microsoft's meaning.
    add_compile_definitions(UNICODE _UNICODE WINVER=0x0A00 _WIN32_WINNT=0x0A00 NOMINMAX WIN32_LEAN_AND_MEAN
                            __USE_MINGW_ANSI_STDIO=0)
    # Every function keeps a frame pointer: an error report finds the memory of a frame by it, and without one "the memory of the
    # frame" reaches to that of some caller, again and again.
    add_compile_options(-fno-omit-frame-pointer)
    # __try and __except.
    add_compile_options(-fms-extensions -Wno-language-extension-token)
    # CodeView for the PDB beside the program. Whatever the folders are, sources are called /lumaris/..., and what is built
    # /lumaris/build/...: two builds of one commit are the same bytes. The PDB counts, too: its hash stands in the program. The
    # compiler's command line is not part of it: that names the true folders, or, out of the compiler cache, those of another build.
    # If the compiler's folder is a relative one, object files are named relative to it.
    add_compile_options(-g -gcodeview -gno-codeview-command-line -fdebug-compilation-dir=.
                        -ffile-prefix-map=${PROJECT_SOURCE_DIR}=/lumaris -ffile-prefix-map=${PROJECT_BINARY_DIR}=/lumaris/build)
    set(CMAKE_CXX_FLAGS_RELEASE "-O2 -DNDEBUG")
    set(CMAKE_C_FLAGS_RELEASE "-O2 -DNDEBUG")
endif()
if(LUMARIS_SANITIZE AND WIN32)
    # There is no run-time for Windows here; an instruction that ends the program takes its place. The check of dynamic types needs one.
    add_compile_options(-fsanitize=${LUMARIS_SANITIZE} -fno-sanitize=vptr -fsanitize-trap=all -fno-omit-frame-pointer)
elseif(LUMARIS_SANITIZE)
    add_compile_options(-fsanitize=${LUMARIS_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    add_link_options(-fsanitize=${LUMARIS_SANITIZE})
endif()
if(LUMARIS_COVERAGE)
    # Everything counts, the tests too: an inline function may be linked from any of them. Threads count together. The sources are named
    # relative to the tree, as -ffile-prefix-map does for Windows anyway.
    add_compile_options(-fprofile-instr-generate -fcoverage-mapping -fprofile-update=atomic
                        -fcoverage-prefix-map=${PROJECT_SOURCE_DIR}=. -fcoverage-prefix-map=${PROJECT_BINARY_DIR}=build)
    if(WIN32)
        add_subdirectory(toolchain/coverage)
        link_libraries(profile_at_end)
        # What describes the functions is referred to by nobody.
        add_link_options(-Wl,--no-gc-sections)
    else()
        add_link_options(-fprofile-instr-generate)
    endif()
endif()
