# Libraries that consist of headers.

# qor_header_library(TARGET FOLDER PACKAGE): the headers in /usr/include/FOLDER, from the Debian package PACKAGE, as the
# target TARGET. The compiler for Windows must not see the rest of /usr/include, so it gets a folder with links.
function(qor_header_library target folder package)
    if(NOT EXISTS /usr/include/${folder})
        message(FATAL_ERROR "There is no /usr/include/${folder} here (package ${package}).")
    endif()
    add_library(${target} INTERFACE)
    if(CMAKE_CROSSCOMPILING)
        set(links ${PROJECT_BINARY_DIR}/headers)
        file(MAKE_DIRECTORY ${links})
        file(CREATE_LINK /usr/include/${folder} ${links}/${folder} SYMBOLIC)
        target_include_directories(${target} SYSTEM INTERFACE ${links})
    endif()
endfunction()

qor_header_library(qor_boost boost libboost1.81-dev)
qor_header_library(qor_json nlohmann nlohmann-json3-dev)
