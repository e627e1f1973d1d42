# What an installed qor tells other projects: qorConfig.cmake, and qor.pc for pkg-config.
include(CMakePackageConfigHelpers)
set(config_folder lib/cmake/qor)
if(NOT WIN32)
    set(config_folder ${CMAKE_INSTALL_LIBDIR}/cmake/qor)
endif()
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/qorConfig.cmake.in ${PROJECT_BINARY_DIR}/qorConfig.cmake
                              INSTALL_DESTINATION ${config_folder}
                              PATH_VARS CMAKE_INSTALL_INCLUDEDIR qor_library_folder qor_private_folder)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/qorConfigVersion.cmake COMPATIBILITY SameMajorVersion)
if(QOR_INSTALL)
    install(FILES ${PROJECT_BINARY_DIR}/qorConfig.cmake ${PROJECT_BINARY_DIR}/qorConfigVersion.cmake
                  ${PROJECT_SOURCE_DIR}/cmake/qorProgram.cmake ${PROJECT_SOURCE_DIR}/cmake/qorCopy.cmake
            DESTINATION ${config_folder} COMPONENT dev)
endif()

if(NOT WIN32)
    set(pc_folder ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
    if(CMAKE_INSTALL_PREFIX STREQUAL /usr OR IS_ABSOLUTE ${CMAKE_INSTALL_LIBDIR})
        # These are not moved. The run path must not lead through the folder of qor.pc, because a host that only runs
        # programs need not have it.
        set(prefix_of_pc ${CMAKE_INSTALL_PREFIX})
        set(privatedir_of_pc ${CMAKE_INSTALL_FULL_LIBDIR}/qor)
        string(REGEX REPLACE "^/usr/" "\${prefix}/" privatedir_of_pc ${privatedir_of_pc})
    else()
        # Folders are relative to the file, so the tree can be moved.
        file(RELATIVE_PATH prefix_of_pc ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
        string(REGEX REPLACE "/$" "" prefix_of_pc "\${pcfiledir}/${prefix_of_pc}")
        set(privatedir_of_pc "\${pcfiledir}/../qor")
    endif()
    set(includedir_of_pc ${CMAKE_INSTALL_INCLUDEDIR})
    if(NOT IS_ABSOLUTE ${includedir_of_pc})
        set(includedir_of_pc "\${prefix}/${includedir_of_pc}")
    endif()
    configure_file(${PROJECT_SOURCE_DIR}/cmake/qor.pc.in ${PROJECT_BINARY_DIR}/qor.pc @ONLY)
    if(QOR_INSTALL)
        install(FILES ${PROJECT_BINARY_DIR}/qor.pc DESTINATION ${pc_folder} COMPONENT dev)
    endif()
endif()
