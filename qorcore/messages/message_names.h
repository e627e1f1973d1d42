// The names of all numbered messages. The lists beside this file have a catalog each: the English texts, from which
// libqor is built, and these names, by which libqor, its modules and the programs ask for them.
#pragma once

#include "qor/system/Types.h"

#define QOR_MESSAGE(number, name, text) name = number,

namespace qor::messages {

// The framework's own, beside the errors of qor/system/errors.def.
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

} // namespace qor::messages

#undef QOR_MESSAGE
