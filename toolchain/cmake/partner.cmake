# Checks when configuring that somebody has named the partner: whom users turn to must not be decided by a default.
string(STRIP "${LUMARIS_PARTNER}" LUMARIS_PARTNER)
if(LUMARIS_PARTNER STREQUAL "")
    message(FATAL_ERROR "No partner: LUMARIS_PARTNER is empty.\n"
                        "  Albanian error texts name the company that users of that language deal with. Give its name, for example\n"
                        "      ./dev build arm64 --key halvoro.pub --partner NAME\n"
                        "  or -DLUMARIS_PARTNER=NAME for cmake.")
endif()
