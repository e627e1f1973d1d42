# toml++, for the module qor-config: defines the target TOML::TOML if its headers are installed. A cross compiler must
# not see the other headers of the host, so it gets a folder with a link to these alone.
if(NOT QOR_TOML STREQUAL "OFF")
    find_path(TOML_INCLUDE_DIR toml++/toml.h PATHS /usr/include NO_CMAKE_FIND_ROOT_PATH)
    if(TOML_INCLUDE_DIR)
        set(toml_include ${PROJECT_BINARY_DIR}/include-toml)
        file(MAKE_DIRECTORY ${toml_include})
        file(CREATE_LINK ${TOML_INCLUDE_DIR}/toml++ ${toml_include}/toml++ SYMBOLIC)
        add_library(TOML::TOML INTERFACE IMPORTED)
        target_include_directories(TOML::TOML SYSTEM INTERFACE ${toml_include})
    elseif(QOR_TOML STREQUAL "ON")
        message(FATAL_ERROR
                "There is no toml++ here (package libtomlplusplus-dev), and QOR_TOML asks for the module qor-config.")
    endif()
endif()
