# Checks LUMARIS_PUBLIC_KEY when configuring and sets from it
#   LUMARIS_KEY_ID_BYTES  the 8 bytes of the key's id, "0x.., 0x.., ..."
#   LUMARIS_KEY_BYTES     the 32 bytes of the Ed25519 public key, likewise.
#
# A Minisign public key is base64 (with padding) of 42 bytes: "Ed", the key id, the key.
set(lumaris_key_help
    "Make a key pair with:\n"
    "      minisign -G -p halvoro.pub -s halvoro.key\n"
    "  keep the .key file secret, and give the last line of the .pub file, for example\n"
    "      ./dev build arm64 --key halvoro.pub --partner NAME\n"
    "  or -DLUMARIS_PUBLIC_KEY=RW... for cmake.")
string(CONCAT lumaris_key_help ${lumaris_key_help})

file(STRINGS ${PROJECT_SOURCE_DIR}/tests/keys/test.pub lumaris_test_key REGEX "^RW")
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/tests/keys/test.pub)

set(lumaris_key "${LUMARIS_PUBLIC_KEY}")
string(STRIP "${lumaris_key}" lumaris_key)
if(lumaris_key STREQUAL "" AND LUMARIS_BUILD_TESTS)
    set(lumaris_key "${lumaris_test_key}")
endif()
if(lumaris_key STREQUAL "")
    message(FATAL_ERROR "No trusted public key: LUMARIS_PUBLIC_KEY is empty.\n  ${lumaris_key_help}")
endif()

function(lumaris_key_is_malformed reason)
    message(FATAL_ERROR "The trusted public key is malformed: ${reason}.\n  LUMARIS_PUBLIC_KEY is \"${LUMARIS_PUBLIC_KEY}\"\n  ${lumaris_key_help}")
endfunction()

string(LENGTH "${lumaris_key}" lumaris_length)
if(NOT lumaris_key MATCHES "^[A-Za-z0-9+/]+=*$")
    lumaris_key_is_malformed("it is not base64 text")
elseif(NOT lumaris_length EQUAL 56 OR lumaris_key MATCHES "=")
    lumaris_key_is_malformed("it has ${lumaris_length} characters where a Minisign public key has 56 (42 bytes)")
endif()

# base64 to hexadecimal, three bytes at a time.
set(lumaris_alphabet "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/")
set(lumaris_bytes "")
foreach(start RANGE 0 52 4)
    set(group 0)
    foreach(offset RANGE 0 3)
        math(EXPR position "${start} + ${offset}")
        string(SUBSTRING "${lumaris_key}" ${position} 1 character)
        string(FIND "${lumaris_alphabet}" "${character}" value)
        math(EXPR group "(${group} << 6) | ${value}")
    endforeach()
    foreach(shift 16 8 0)
        math(EXPR byte "((${group} >> ${shift}) & 255) | 256" OUTPUT_FORMAT HEXADECIMAL)
        string(SUBSTRING "${byte}" 3 2 byte)
        list(APPEND lumaris_bytes "0x${byte}")
    endforeach()
endforeach()
list(SUBLIST lumaris_bytes 0 2 lumaris_algorithm)
if(NOT lumaris_algorithm STREQUAL "0x45;0x64")
    lumaris_key_is_malformed("it does not begin with the algorithm \"Ed\"")
endif()
list(SUBLIST lumaris_bytes 2 8 LUMARIS_KEY_ID_BYTES)
list(SUBLIST lumaris_bytes 10 32 LUMARIS_KEY_BYTES)
list(JOIN LUMARIS_KEY_ID_BYTES ", " LUMARIS_KEY_ID_BYTES)
list(JOIN LUMARIS_KEY_BYTES ", " LUMARIS_KEY_BYTES)

if(lumaris_key STREQUAL lumaris_test_key AND NOT LUMARIS_BUILD_TESTS)
    message(FATAL_ERROR "The trusted public key is the test key of tests/keys, whose secret half anybody can read: a release cannot be "
                        "built with it.\n  ${lumaris_key_help}")
endif()
