# PAM, for the module qor-pam: defines the target PAM::PAM if it is installed. Windows has its own logon.
if(NOT WIN32 AND NOT QOR_PAM STREQUAL "OFF")
    find_path(PAM_INCLUDE_DIR security/pam_appl.h)
    find_library(PAM_LIBRARY pam)
    find_library(CRYPT_LIBRARY crypt)
    if(PAM_INCLUDE_DIR AND PAM_LIBRARY AND CRYPT_LIBRARY)
        add_library(PAM::PAM UNKNOWN IMPORTED)
        set_target_properties(PAM::PAM PROPERTIES IMPORTED_LOCATION ${PAM_LIBRARY}
                                                  INTERFACE_INCLUDE_DIRECTORIES ${PAM_INCLUDE_DIR}
                                                  INTERFACE_LINK_LIBRARIES ${CRYPT_LIBRARY})
    elseif(QOR_PAM STREQUAL "ON")
        message(FATAL_ERROR "There is no PAM here (package libpam0g-dev), and QOR_PAM asks for the module qor-pam.")
    endif()
endif()
