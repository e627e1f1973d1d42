// The binding of a client to libqor: the table of entry points and one forwarder for each of them.
//
// Everything here is made from slots.def, the only list of slots. A client gets, for each row, an inline
// forwarder qor::glue::op that reads the table (one load, one test, one indirect jump). Where QOR_INSIDE is
// defined, that is inside libqor, the same name is the declaration of the library's own function, so that
// the framework's inline classes read alike on both sides.
//
// No exception crosses the table. An operation that finds no memory for its caller returns null, and the
// inline class or function around it throws std::bad_alloc in the caller's own code.
#pragma once

#include "qor/system/Types.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>

class IQORDataSink;
class IQORDataSource;
class IQORDebugControl;
class IQORDigestEngine;
class IQORErrorBuilder;
class IQORErrorMessage;
class IQORHostAddressList;
class IQORMemoryDataSink;
class IQORMemoryDataSource;
class IQORNetInterfaceList;
class IQORSerialPort;
class IQORSignalHandler;
class IQORSimpleFileReader;
class IQORSystemInfo;
class IQORUserToken;
class qorDataBlock;
class qorFile;
class qorRational;
class qorString;
class qorStringArray;
class qorTimecode;
class qorVector;
struct qorHostAddress;
struct qorTimeInfo;
struct qoraddr_ipv4;
struct qoraddr_ipv6;
enum qorFolderId : uint32;

// A trace switch. The library writes it, everyone reads it: 0 is off.
using qorDebugFlag = std::atomic<uint8>;
static_assert(sizeof(qorDebugFlag) == 1 && qorDebugFlag::is_always_lock_free);

// Codes lie below this number; the array that qorDebugGetFlags hands out is so long.
inline constexpr uint32 qorDebugMaxCodes = 16384;

// Like strcmp: negative, zero or positive.
using qorStringCompare = int (*)(const char* left, const char* right, void* context) noexcept;
using qorCleanupRoutine = void (*)(void* context) noexcept;

namespace qor::glue {

// What a reserved or free number holds: nothing that anyone may call.
using unwritten = void (*)();

struct binding_table {
#define QOR_SLOT(number, result, op, parameters, arguments) result(*op) parameters noexcept;
#define QOR_RESERVED(number, op) unwritten op;
#define QOR_FREE(first, count) unwritten free_##first[count];
#include "qor/glue/slots.def"
#undef QOR_SLOT
#undef QOR_RESERVED
#undef QOR_FREE
};

// Each row sits at its number.
#define QOR_SLOT(number, result, op, parameters, arguments)                                                            \
    static_assert(offsetof(binding_table, op) == (number) * sizeof(unwritten));
#define QOR_RESERVED(number, op) static_assert(offsetof(binding_table, op) == (number) * sizeof(unwritten));
#define QOR_FREE(first, count) static_assert(offsetof(binding_table, free_##first) == (first) * sizeof(unwritten));
#include "qor/glue/slots.def"
#undef QOR_SLOT
#undef QOR_RESERVED
#undef QOR_FREE

inline constexpr uint32 slot_count = sizeof(binding_table) / sizeof(unwritten);

// Whether a library's table has every operation that this client was compiled for: an older one is shorter, or has not
// written some of them yet. Its length is asked for first, since nothing behind it may be read.
inline bool is_sufficient(const binding_table& table) noexcept {
    constexpr uint16 written[] = {
#define QOR_SLOT(number, result, op, parameters, arguments) number,
#define QOR_RESERVED(number, op)
#define QOR_FREE(first, count)
#include "qor/glue/slots.def"
#undef QOR_SLOT
#undef QOR_RESERVED
#undef QOR_FREE
    };
    if (table.qorGetTableLength == nullptr || table.qorGetTableLength() < slot_count)
        return false;
    for (const uint16 number : written) {
        unwritten entry;
        std::memcpy(&entry, reinterpret_cast<const char*>(&table) + number * sizeof entry, sizeof entry);
        if (entry == nullptr)
            return false;
    }
    return true;
}

// The one export of libqor has this type and the name glue_binding_point.
using binding_point = const binding_table*() noexcept;

#ifdef QOR_INSIDE

#define QOR_SLOT(number, result, op, parameters, arguments) result op parameters noexcept;

constexpr bool is_bound() noexcept { return true; }

#else

// Null until the first bound call. Two threads that bind at once load the same library and store the same
// table, so a plain store is enough; it is atomic only to be one word for every reader.
#if defined(__ELF__)
[[gnu::visibility("hidden")]]
#endif
inline constinit std::atomic<const binding_table*>
    s_funcs{nullptr};

// Loads libqor and stores its table; ends the process with exit code 100 if it cannot (impl_<platform>.h).
const binding_table* bind() noexcept;

inline bool is_bound() noexcept { return s_funcs.load(std::memory_order_acquire) != nullptr; }

inline const binding_table* table() noexcept {
    const binding_table* funcs = s_funcs.load(std::memory_order_acquire);
    if (funcs == nullptr) [[unlikely]]
        funcs = bind();
    return funcs;
}

#define QOR_SLOT(number, result, op, parameters, arguments)                                                            \
    inline result op parameters noexcept { return table()->op arguments; }

#endif

#define QOR_RESERVED(number, op)
#define QOR_FREE(first, count)
#include "qor/glue/slots.def"
#undef QOR_SLOT
#undef QOR_RESERVED
#undef QOR_FREE

// The source of every assertion of the binding and the primitives. It is the same on all platforms: what an
// assertion says is part of the contract and does not follow the file that raises it.
inline constexpr char impl_file[] = "qorcore/include/qor/glue/impl_windows";

// Reports through slot 33, but never binds for it: before the table is bound an assertion is silent.
inline void assert_failed(const char* expr, const char* func, const char* file, int line) noexcept {
    if (is_bound())
        qorAssertFailed(expr, func, file, line);
}

#ifndef QOR_INSIDE

inline constexpr char bind_function[] = "const qor::glue::binding_table* qor::glue::bind()";

// The end of bind() on every platform: checks the library's table, stores it and returns it. Where the table cannot be
// used, `end` ends the process; it is told whether operations are missing.
template <class END>
const binding_table* store_table(const binding_table* funcs, END end) noexcept {
    if (funcs == nullptr) {
        assert_failed("s_funcs != NULL", bind_function, impl_file, 99);
        end(false);
    } else if (!is_sufficient(*funcs)) {
        end(true);
    }
    s_funcs.store(funcs, std::memory_order_release);
    return funcs;
}

#endif

} // namespace qor::glue
