# What every file of ours that ships has: a map of the linker. One for Windows also has a manifest, a version, and its
# debug information in a file beside it, so that the file itself is small. The tests run the same files that ship.

# qor_file_name(RESULT TARGET): the name of the file that the target makes.
function(qor_file_name result target)
    get_target_property(type ${target} TYPE)
    get_target_property(name ${target} OUTPUT_NAME)
    get_target_property(prefix ${target} PREFIX)
    if(NOT name)
        set(name ${target})
    endif()
    if(type STREQUAL EXECUTABLE)
        set(name ${name}.exe)
    elseif(prefix)
        set(name ${prefix}${name}.dll)
    else()
        set(name ${name}.dll)
    endif()
    set(${result} ${name} PARENT_SCOPE)
endfunction()

# qor_map(TARGET FILE): the map of the linker says what was linked into FILE, for the tests of the notices.
function(qor_map target file)
    file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/maps)
    target_link_options(${target} PRIVATE LINKER:-Map=${PROJECT_BINARY_DIR}/maps/${file}.map)
endfunction()

# qor_describe(TARGET TEXT): the file gets the manifest, and a version in which TEXT describes it.
function(qor_describe target text)
    qor_file_name(file ${target})
    get_target_property(type ${target} TYPE)
    # The numbers are the system's: those of the manifest of a program and of a library, VFT_APP and VFT_DLL.
    if(type STREQUAL EXECUTABLE)
        set(manifest_number 1)
        set(type_number 1)
    else()
        set(manifest_number 2)
        set(type_number 2)
    endif()
    set(manifest ${PROJECT_SOURCE_DIR}/cmake/windows.manifest)
    set(resources ${PROJECT_BINARY_DIR}/resources/${file}.rc)
    configure_file(${PROJECT_SOURCE_DIR}/cmake/windows.rc.in ${resources} @ONLY)
    set_source_files_properties(${resources} PROPERTIES OBJECT_DEPENDS ${manifest})
    target_sources(${target} PRIVATE ${resources})

    target_link_options(${target} PRIVATE LINKER:--no-insert-timestamp)
    qor_map(${target} ${file})
endfunction()

# qor_ships(TARGET TEXT): TARGET ships, with that description. Call it where the target is made, after its name is set.
function(qor_ships target text)
    if(NOT WIN32)
        qor_map(${target} $<TARGET_FILE_NAME:${target}>)
        return()
    endif()
    qor_describe(${target} ${text})
    # The identifier of the build stands in the file and in the one with its debug information.
    target_link_options(${target} PRIVATE LINKER:--build-id)
    set(full $<TARGET_FILE:${target}>)
    # Without the variable, both programs write the time of the build into the file.
    set(at_no_time ${CMAKE_COMMAND} -E env SOURCE_DATE_EPOCH=0)
    add_custom_command(TARGET ${target} POST_BUILD
                       COMMAND ${at_no_time} ${CMAKE_OBJCOPY} --only-keep-debug ${full} ${full}.debug
                       COMMAND ${at_no_time} ${CMAKE_STRIP} --strip-all ${full}
                       COMMAND ${at_no_time} ${CMAKE_OBJCOPY} --add-gnu-debuglink=${full}.debug ${full}
                       VERBATIM)
    get_target_property(type ${target} TYPE)
    set(destination ${CMAKE_INSTALL_BINDIR})
    if(NOT type STREQUAL EXECUTABLE AND NOT target MATCHES "^(qor|qor_record_preload)$")
        set(destination ${qor_private_folder})
    endif()
    install(FILES ${full}.debug DESTINATION ${destination} COMPONENT debug EXCLUDE_FROM_ALL)
    add_dependencies(shipped ${target})
endfunction()

if(WIN32)
    enable_language(RC)
    add_custom_target(shipped)
endif()
# The same sources give the same files in any folder: there is no other name in them than this one. On Linux, debuggers
# and tests read the sources' names in builds with debug information, unless these are for packages.
option(QOR_PLAIN_NAMES "Debug information names the folder of the sources /qor, wherever it is" OFF)
set(config Release)
set(build package)
if(WIN32)
    set(config RelWithDebInfo)
    set(build windows)
endif()
if(QOR_PLAIN_NAMES)
    set(config ${CMAKE_BUILD_TYPE})
endif()
set(names "-ffile-prefix-map=${PROJECT_SOURCE_DIR}/=/qor/")
cmake_path(IS_PREFIX PROJECT_SOURCE_DIR "${PROJECT_BINARY_DIR}" is_inside)
if(NOT is_inside)
    list(APPEND names "-ffile-prefix-map=${PROJECT_BINARY_DIR}=/qor/build/${build}")
endif()
# The libraries that scripts build lie in the user's cache, where a link leads.
foreach(library backtrace openssl sqlite zstd)
    file(REAL_PATH ${PROJECT_BINARY_DIR}/../${library}-windows folder)
    list(APPEND names "-ffile-prefix-map=${folder}/=/qor/build/${library}-windows/")
endforeach()
add_compile_options("$<$<AND:$<CONFIG:${config}>,$<COMPILE_LANGUAGE:CXX>>:${names}>")
