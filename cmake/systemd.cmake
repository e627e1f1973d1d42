# libsystemd, for the module qor-systemd: defines the target Systemd::Systemd if it is installed. Windows has its own
# manager of services.
if(NOT WIN32 AND NOT QOR_SYSTEMD STREQUAL "OFF")
    find_path(SYSTEMD_INCLUDE_DIR systemd/sd-bus.h)
    find_library(SYSTEMD_LIBRARY systemd)
    if(SYSTEMD_INCLUDE_DIR AND SYSTEMD_LIBRARY)
        add_library(Systemd::Systemd UNKNOWN IMPORTED)
        set_target_properties(Systemd::Systemd PROPERTIES IMPORTED_LOCATION ${SYSTEMD_LIBRARY}
                                                          INTERFACE_INCLUDE_DIRECTORIES ${SYSTEMD_INCLUDE_DIR})
    elseif(QOR_SYSTEMD STREQUAL "ON")
        message(FATAL_ERROR
                "There is no libsystemd here (package libsystemd-dev), and QOR_SYSTEMD asks for the module "
                "qor-systemd.")
    endif()
endif()
