# What an installed qor tells other projects of CMake: qorConfig.cmake.
include(CMakePackageConfigHelpers)
set(config_folder lib/cmake/qor)
if(NOT WIN32)
    set(config_folder ${CMAKE_INSTALL_LIBDIR}/cmake/qor)
endif()
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/qorConfig.cmake.in ${CMAKE_BINARY_DIR}/qorConfig.cmake
                              INSTALL_DESTINATION ${config_folder}
                              PATH_VARS CMAKE_INSTALL_INCLUDEDIR CMAKE_INSTALL_LIBDIR)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/qorConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/qorConfig.cmake ${CMAKE_BINARY_DIR}/qorConfigVersion.cmake
        DESTINATION ${config_folder})
