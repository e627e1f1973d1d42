# The documents that are installed beside programs and library.
if(QOR_INSTALL AND NOT WIN32)
    install(FILES README.md DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT doc)
    install(DIRECTORY docs DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT doc)
    find_package(Python3 3.9 QUIET COMPONENTS Interpreter)
    if(Python3_FOUND)
        file(GLOB licences CONFIGURE_DEPENDS packages/notices/*)
        set(notices ${PROJECT_BINARY_DIR}/THIRD-PARTY-NOTICES)
        add_custom_command(OUTPUT ${notices}
                           COMMAND ${Python3_EXECUTABLE} ${PROJECT_SOURCE_DIR}/packages/notices.py --system linux
                                   --title "qor ${PROJECT_VERSION}" --out ${notices}
                           DEPENDS packages/notices.py ${licences} VERBATIM)
        add_custom_target(third_party_notices ALL DEPENDS ${notices})
        install(FILES ${notices} DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT doc)
    else()
        message(STATUS "There is no Python here, so THIRD-PARTY-NOTICES is not made.")
    endif()
endif()
