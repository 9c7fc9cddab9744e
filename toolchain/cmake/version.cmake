# Checks the version when configuring. The update description, the program and the installer package have room for three numbers from
# 0 to 255: a version that one of them would cut off would be installed again at every run.
if(NOT PROJECT_VERSION MATCHES "^(0|[1-9][0-9]*)\\.(0|[1-9][0-9]*)\\.(0|[1-9][0-9]*)$")
    message(FATAL_ERROR "The version \"${PROJECT_VERSION}\" is not three numbers such as 1.2.3: change LUMARIS_VERSION, or CMakeLists.txt.")
endif()
foreach(part IN ITEMS MAJOR MINOR PATCH)
    if(PROJECT_VERSION_${part} GREATER 255)
        message(FATAL_ERROR "The version \"${PROJECT_VERSION}\" has the number ${PROJECT_VERSION_${part}}, and an update description has no room "
                            "for one above 255: change LUMARIS_VERSION, or CMakeLists.txt.")
    endif()
endforeach()
