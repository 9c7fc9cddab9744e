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
    # __try and __except.
    add_compile_options(-fms-extensions -Wno-language-extension-token)
    # CodeView for the PDB beside the program. Paths of the build machine do not get into the program, so that two builds of
    # one commit are the same bytes.
    add_compile_options(-g -gcodeview -ffile-prefix-map=${PROJECT_SOURCE_DIR}=. -ffile-prefix-map=${PROJECT_BINARY_DIR}=build)
    set(CMAKE_CXX_FLAGS_RELEASE "-O2 -DNDEBUG")
    set(CMAKE_C_FLAGS_RELEASE "-O2 -DNDEBUG")
endif()
if(LUMARIS_SANITIZE)
    add_compile_options(-fsanitize=${LUMARIS_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    add_link_options(-fsanitize=${LUMARIS_SANITIZE})
endif()
