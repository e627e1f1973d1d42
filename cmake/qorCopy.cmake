# Copies libqor with its modules and catalogs beside a program; qor_add_program lets each link of a program end with it.
#
#     cmake -D LIBRARY=FILE -D RESOURCES=FOLDER -D TO=FOLDER -D LOCK=FILE -P qorCopy.cmake
#
# Programs in one folder share the copies, and a build links several at once: only one at a time may copy.
file(LOCK "${LOCK}" GUARD PROCESS RESULT_VARIABLE locked)
if(NOT locked STREQUAL 0)
    message(FATAL_ERROR "${LOCK} cannot be locked: ${locked}")
endif()
# An installation has the library among its modules; one copy is enough. The recorder's is for the recorder alone.
file(COPY "${RESOURCES}/" DESTINATION "${TO}/qor" PATTERN libqor.so EXCLUDE PATTERN libqor-record.so EXCLUDE)
file(COPY "${LIBRARY}" DESTINATION "${TO}")
