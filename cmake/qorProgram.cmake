# qor_add_program(NAME [LIBRARY RUN_PATH|COPY|NONE] SOURCES...): a program of another project that finds libqor. In a
# project that contains qor, the target qor makes the library; elsewhere it is the installed one.
#
# LIBRARY RUN_PATH   the program's run path leads to the library. The default, except on Windows, which has no run paths.
# LIBRARY COPY       copies of libqor and of its modules and catalogs lie beside the program, so its folder can be moved.
#                    The default on Windows.
# LIBRARY NONE       nothing: for a program that is installed beside those of qor, which finds the library there.
function(qor_add_program name)
    cmake_parse_arguments(PARSE_ARGV 1 ARG "" "LIBRARY" "")
    if(NOT ARG_LIBRARY)
        set(ARG_LIBRARY RUN_PATH)
        if(WIN32)
            set(ARG_LIBRARY COPY)
        endif()
    endif()
    if(NOT ARG_LIBRARY MATCHES "^(RUN_PATH|COPY|NONE)$" OR (WIN32 AND ARG_LIBRARY STREQUAL RUN_PATH))
        message(FATAL_ERROR "qor_add_program(${name}): LIBRARY cannot be ${ARG_LIBRARY} here.")
    endif()
    if(NOT ARG_UNPARSED_ARGUMENTS)
        message(FATAL_ERROR "qor_add_program(${name}): a program needs at least one source.")
    endif()
    add_executable(${name} ${ARG_UNPARSED_ARGUMENTS})
    target_link_libraries(${name} PRIVATE qor::client)
    if(TARGET qor)
        set(library $<TARGET_FILE:qor>)
        set(folder $<TARGET_FILE_DIR:qor>)
        set(resources $<TARGET_FILE_DIR:qor>/qor)
        add_dependencies(${name} qor)
        foreach(module IN ITEMS config network openssl pam store systemd)
            if(TARGET qor_${module})
                add_dependencies(${name} qor_${module})
            endif()
        endforeach()
    else()
        set(library ${qor_LIBRARY})
        get_filename_component(folder ${library} DIRECTORY)
        set(resources ${qor_RUNTIME_FOLDER})
    endif()
    if(ARG_LIBRARY STREQUAL RUN_PATH)
        set_property(TARGET ${name} APPEND PROPERTY BUILD_RPATH ${folder})
        if(NOT TARGET qor)
            set_property(TARGET ${name} APPEND PROPERTY INSTALL_RPATH ${folder})
        endif()
    elseif(ARG_LIBRARY STREQUAL COPY)
        add_custom_command(TARGET ${name} POST_BUILD
                           COMMAND ${CMAKE_COMMAND} -E copy_directory ${resources} $<TARGET_FILE_DIR:${name}>/qor
                           COMMAND ${CMAKE_COMMAND} -E copy_if_different ${library} $<TARGET_FILE_DIR:${name}>
                           VERBATIM)
        if(NOT TARGET qor AND NOT WIN32)
            # An installation has the library among its modules; one copy is enough.
            add_custom_command(TARGET ${name} POST_BUILD
                               COMMAND ${CMAKE_COMMAND} -E rm -f $<TARGET_FILE_DIR:${name}>/qor/libqor.so
                                       $<TARGET_FILE_DIR:${name}>/qor/libqor-record.so
                               VERBATIM)
        endif()
    endif()
endfunction()
