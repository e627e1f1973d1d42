# OpenSSL, for the module qor-openssl and for tests that compare with it: the target OpenSSL::Crypto, where it is there.
if(WIN32)
    # scripts/build-openssl-windows makes it; no package has it.
    set(OPENSSL_ROOT_DIR ${CMAKE_BINARY_DIR}/../openssl-windows)
    list(APPEND CMAKE_FIND_ROOT_PATH ${OPENSSL_ROOT_DIR})
    set(OPENSSL_USE_STATIC_LIBS ON)
endif()
if(QOR_OPENSSL STREQUAL "AUTO")
    find_package(OpenSSL 3.0 QUIET)
elseif(QOR_OPENSSL)
    find_package(OpenSSL 3.0 REQUIRED)
endif()
