# Precompiled headers: they halve the processor time of a build. A source whose options differ from those of the
# headers cannot use them, so it needs the property SKIP_PRECOMPILE_HEADERS.

# qor_precompile(TARGET): TARGET has precompiled headers of its own.
function(qor_precompile target)
    target_precompile_headers(${target} PRIVATE ${PROJECT_SOURCE_DIR}/cmake/precompiled.h)
    if(CMAKE_CXX_COMPILER_ID STREQUAL GNU)
        target_compile_options(${target} PRIVATE -fpch-preprocess)  # ccache needs it
    endif()
endfunction()

# qor_use_precompiled(TARGET): TARGET, a client, shares those of all clients.
function(qor_use_precompiled target)
    target_precompile_headers(${target} REUSE_FROM qor_precompiled)
    if(CMAKE_CXX_COMPILER_ID STREQUAL GNU)
        target_compile_options(${target} PRIVATE -fpch-preprocess)
    endif()
endfunction()

add_library(qor_precompiled OBJECT ${CMAKE_CURRENT_LIST_DIR}/precompiled.cpp)
target_link_libraries(qor_precompiled PRIVATE qor_client qor_options)
qor_precompile(qor_precompiled)
