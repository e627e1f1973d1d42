// The version of these headers. CMakeLists.txt takes the project's version from here. qorGetLibraryVersion
// (qor/system/Process.h) returns the version of the library that a program runs with, which can be another one.
//
//     #if QOR_VERSION_NUMBER >= QOR_MAKE_VERSION(3, 36, 0)
#pragma once

// Only a new major version may break programs. A minor one adds to the interface, and a patch does neither.
#define QOR_VERSION_MAJOR 3
#define QOR_VERSION_MINOR 35
#define QOR_VERSION_PATCH 21

// A number that grows with the version.
#define QOR_MAKE_VERSION(major, minor, patch) ((major)*1000000 + (minor)*1000 + (patch))
#define QOR_VERSION_NUMBER QOR_MAKE_VERSION(QOR_VERSION_MAJOR, QOR_VERSION_MINOR, QOR_VERSION_PATCH)

// "3.35.21", for qorCompareVersions too.
#define QOR_VERSION_TEXT_OF(major, minor, patch) #major "." #minor "." #patch
#define QOR_VERSION_TEXT(major, minor, patch) QOR_VERSION_TEXT_OF(major, minor, patch)
#define QOR_VERSION QOR_VERSION_TEXT(QOR_VERSION_MAJOR, QOR_VERSION_MINOR, QOR_VERSION_PATCH)
