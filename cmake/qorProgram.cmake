# qor_add_program(NAME [LIBRARY RUN_PATH|COPY|NONE] SOURCES...): a program of another project that finds libqor. In a
# project that contains qor, that project makes the library; elsewhere it is the installed one.
#
# LIBRARY RUN_PATH   the program's run path leads to the library. The default; Windows has no run paths.
# LIBRARY COPY       copies of libqor, its modules and its catalogs lie beside the program, so its folder can be moved.
#                    They are made when the program is linked, which a change of the library causes. The default on
#                    Windows.
# LIBRARY NONE       nothing: for a program that is installed beside those of qor, which finds the library there.
function(qor_add_program name)
    cmake_parse_arguments(PARSE_ARGV 1 ARG "" "LIBRARY" "")
    if(ARG_KEYWORDS_MISSING_VALUES)
        message(FATAL_ERROR "qor_add_program(${name}): LIBRARY needs a value: RUN_PATH, COPY or NONE.")
    endif()
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
    get_target_property(is_installed qor::client IMPORTED)
    if(is_installed)
        get_target_property(library qor::client QOR_LIBRARY)
        get_target_property(resources qor::client QOR_RUNTIME_FOLDER)
        get_filename_component(folder ${library} DIRECTORY)
        set(made_from ${library})
    else()
        set(library $<TARGET_FILE:qor>)
        set(folder $<TARGET_FILE_DIR:qor>)
        set(resources $<TARGET_FILE_DIR:qor>/qor)
        set(made_from)
        foreach(target IN ITEMS qor qor_config qor_network qor_openssl qor_pam qor_store qor_systemd)
            if(TARGET ${target})
                add_dependencies(${name} ${target})
                list(APPEND made_from $<TARGET_FILE:${target}>)
            endif()
        endforeach()
    endif()
    if(ARG_LIBRARY STREQUAL RUN_PATH)
        set_property(TARGET ${name} APPEND PROPERTY BUILD_RPATH ${folder})
        if(is_installed)
            set_property(TARGET ${name} APPEND PROPERTY INSTALL_RPATH ${folder})
        endif()
    elseif(ARG_LIBRARY STREQUAL COPY)
        set_property(TARGET ${name} APPEND PROPERTY LINK_DEPENDS ${made_from})
        add_custom_command(TARGET ${name} POST_BUILD
                           COMMAND ${CMAKE_COMMAND} -D LIBRARY=${library} -D RESOURCES=${resources}
                                   -D TO=$<TARGET_FILE_DIR:${name}> -D LOCK=${CMAKE_BINARY_DIR}/qor-copy.lock
                                   -P ${CMAKE_CURRENT_FUNCTION_LIST_DIR}/qorCopy.cmake
                           VERBATIM)
    endif()
endfunction()
