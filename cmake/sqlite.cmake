# SQLite, for the module qor-store and for tests that compare with it: defines the target SQLite::SQLite3 if it is
# installed.
if(WIN32)
    # scripts/build-sqlite-windows builds it; no package contains it.
    list(APPEND CMAKE_FIND_ROOT_PATH ${PROJECT_BINARY_DIR}/../sqlite-windows)
endif()
if(QOR_SQLITE STREQUAL "AUTO")
    find_package(SQLite3 3.37 QUIET)
elseif(QOR_SQLITE)
    find_package(SQLite3 3.37 REQUIRED)
endif()
