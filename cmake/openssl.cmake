# OpenSSL, for the module qor-openssl and for tests that compare with it: defines the target OpenSSL::Crypto if it is
# installed.
if(WIN32)
    # scripts/build-openssl-windows builds it; no package contains it.
    set(OPENSSL_ROOT_DIR ${PROJECT_BINARY_DIR}/../openssl-windows)
    list(APPEND CMAKE_FIND_ROOT_PATH ${OPENSSL_ROOT_DIR})
    set(OPENSSL_USE_STATIC_LIBS ON)
endif()
if(QOR_OPENSSL STREQUAL "AUTO")
    find_package(OpenSSL 3.0 QUIET)
elseif(QOR_OPENSSL)
    find_package(OpenSSL 3.0 REQUIRED)
endif()
