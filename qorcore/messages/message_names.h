// The names of all numbered messages. Each list beside this file has a catalog: the English texts, from which libqor is
// built, and these names, by which libqor, its modules and the programs refer to the messages.
#pragma once

#include "qor/system/Types.h"

#define QOR_MESSAGE(number, name, text) name = number,

namespace qor::messages {

// The framework's own messages, except the errors of qor/system/errors.def.
namespace framework {
inline constexpr char catalog[] = "qorcore";
enum : uint32 {
#include "qorcore.def"
};
} // namespace framework

namespace tool {
inline constexpr char catalog[] = "qortool";
enum : uint32 {
#include "qortool.def"
};
} // namespace tool

namespace debug_user {
inline constexpr char catalog[] = "qor-debug-user";
enum : uint32 {
#include "qor-debug-user.def"
};
} // namespace debug_user

namespace record {
inline constexpr char catalog[] = "qor-record";
enum : uint32 {
#include "qor-record.def"
};
} // namespace record

namespace heap_page {
inline constexpr char catalog[] = "qor-heap-page";
enum : uint32 {
#include "qor-heap-page.def"
};
} // namespace heap_page

namespace heap {
inline constexpr char catalog[] = "qor-heap";
enum : uint32 {
#include "qor-heap.def"
};
} // namespace heap

namespace check {
inline constexpr char catalog[] = "qor-check";
enum : uint32 {
#include "qor-check.def"
};
} // namespace check

} // namespace qor::messages

#undef QOR_MESSAGE
