# Warnings, sanitizers and link options for all targets.

add_library(qor_options INTERFACE)
target_compile_options(qor_options INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor
                                             -ffunction-sections -fdata-sections)

if(QOR_SANITIZE)
    target_compile_options(qor_options INTERFACE -fsanitize=${QOR_SANITIZE} -fno-sanitize-recover=all
                                                 -fno-omit-frame-pointer)
    target_link_options(qor_options INTERFACE -fsanitize=${QOR_SANITIZE})
endif()

# Link options of the shipped files: tool, library, modules. Test programs keep the shared run-time.
add_library(qor_shipped INTERFACE)
if(QOR_STATIC_RUNTIME)
    target_link_options(qor_shipped INTERFACE -static-libstdc++ -static-libgcc)
endif()
if(WIN32)
    # On Windows, the run-time is not part of the system, so every program contains its own, including the thread
    # library.
    target_link_options(qor_options INTERFACE -static)
endif()
target_link_options(qor_shipped INTERFACE LINKER:--gc-sections LINKER:-O1)

# A client needs only the headers. Other projects name it as they do where the framework is installed.
add_library(qor_client INTERFACE)
add_library(qor::client ALIAS qor_client)
target_include_directories(qor_client INTERFACE ${PROJECT_SOURCE_DIR}/qorcore/include)
target_compile_features(qor_client INTERFACE cxx_std_20)
if(MINGW)
    target_link_options(qor_client INTERFACE -static) # as above, for programs of other projects
endif()
if(NOT qor_relative_folder STREQUAL ../lib/qor) # the usual one, as in qor/glue/library_folder.h
    target_compile_definitions(qor_client INTERFACE QOR_LIBRARY_FOLDER="${qor_relative_folder}")
endif()

# qor_platform_sources(RESULT PATTERNS...): the matching sources, without those for other platforms.
function(qor_platform_sources result)
    list(TRANSFORM ARGN PREPEND ${CMAKE_CURRENT_SOURCE_DIR}/)
    file(GLOB sources CONFIGURE_DEPENDS ${ARGN})
    if(WIN32)
        list(FILTER sources EXCLUDE REGEX "_posix\\.cpp$")
    else()
        list(FILTER sources EXCLUDE REGEX "_windows\\.cpp$")
    endif()
    set(${result} ${sources} PARENT_SCOPE)
endfunction()

# qor_processor_sources(VARIABLE): keeps in this list what the processor needs. <name>_x86.cpp and <name>_arm64.cpp are
# for one; <name>_other.cpp is for those that have no such file of their own.
function(qor_processor_sources variable)
    set(processor other)
    if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64)$")
        set(processor x86)
    elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|ARM64)$")
        set(processor arm64)
    endif()
    set(kept ${${variable}})
    foreach(source IN LISTS ${variable})
        if(source MATCHES "^(.*)_(x86|arm64|other)\\.cpp$" AND NOT CMAKE_MATCH_2 STREQUAL processor)
            if(NOT CMAKE_MATCH_2 STREQUAL other OR "${CMAKE_MATCH_1}_${processor}.cpp" IN_LIST kept)
                list(REMOVE_ITEM kept ${source})
            endif()
        endif()
    endforeach()
    set(${variable} ${kept} PARENT_SCOPE)
endfunction()
