// The binding of a client to libqor: the table of entry points and one forwarder for each of them.
//
// Everything here is generated from slots.def, the only list of slots. A client gets an inline forwarder qor::glue::op
// for each row; it reads the table (one load, one test, one indirect jump). Inside libqor, QOR_INSIDE is defined and
// the same name declares the library's own function, so the framework's inline classes have the same source on both
// sides.
//
// No exception crosses the table. An operation that cannot allocate returns null, and the inline class or function
// around it throws std::bad_alloc in the caller's own code.
#pragma once

#include "qor/glue/library_folder.h"
#include "qor/system/Types.h"
#include "qor/system/Version.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>

class IQORAttributeSet;
class IQORAttributeSetArray;
class IQORAttributeSetDelta;
class IQORAttributeSetDeltaArray;
class IQORBlockTracker64;
class IQORChildProcess;
class IQORConfigFile;
class IQORConfigNode;
class IQORConfigPack;
class IQORDataSink;
class IQORDataSource;
class IQORDebugControl;
class IQORDigestEngine;
class IQORErrorBuilder;
class IQORErrorMessage;
class IQORFileSource;
class IQORFileTarget;
class IQORFolderContents;
class IQORHostAddressList;
class IQORIPConnectionQueue;
class IQORIPConnectionTarget;
class IQORIPPortListener;
class IQORLocalAddressList;
class IQORIpcConnection;
class IQORIpcServer;
class IQORIpcTarget;
class IQORLogEntry;
class IQORMapStringToString;
class IQORMapStringToU32;
class IQORMapStringToVoid;
class IQORMapU32ToString;
class IQORMapU32ToU32;
class IQORMapU32ToVoid;
class IQORMemoryDataSink;
class IQORMemoryDataSource;
class IQORModuleHelper;
class IQORModuleManager;
class IQORNetInterfaceList;
class IQORObjectList;
class IQORObjectStore;
class IQORReadWriteLock;
class IQORRemovableDiskList;
class IQORSerialPort;
class IQORSignalHandler;
class IQORSimpleFileReader;
class IQORStreamSink;
class IQORStreamSource;
class IQORSystemInfo;
class IQORThread;
class IQORThreadWork;
class IQORTimerQueue;
class IQORTimerTarget;
class IQORUserToken;
class IQORValueList;
class IQORVariantList;
class qorDataBlock;
class qorFile;
class qorRational;
class qorString;
class qorStringArray;
class qorTimecode;
class qorVariant;
class qorVector;
struct qorChildEnd;
struct qorChildProcessOptions;
struct qorFileInfo;
struct qorFileInfoEx;
struct qorGlobalValue;
struct qorHostAddress;
struct qorIPPortOptions;
struct qorIpcOptions;
struct qorLogPlace;
struct qorObjectStoreOptions;
struct qorOpenFile;
struct qorSerialParams;
struct qorSerialRS485;
struct qorSerialTimeouts;
struct qorServiceDefaults;
struct qorServiceDescriptor;
struct qorServiceOptions;
struct qorServiceStatus;
struct qorTextView;
struct qorThreadEnd;
struct qorThreadOptions;
struct qorTimeInfo;
struct qorTimerTick;
struct qorTimerTimes;
struct qoraddr_ipv4;
struct qoraddr_ipv6;
enum qorFolderId : uint32;
enum class qorFileOrigin : uint32;
enum class qorFlushTo : uint32;
enum class qorLogLevel : uint32;
enum class qorSerialClosing : uint32;
enum class qorSerialParity : uint8;
enum class qorVariantKind : uint32;

// A trace switch: 0 is off. The library writes it; any code may read it.
using qorDebugFlag = std::atomic<uint8>;
static_assert(sizeof(qorDebugFlag) == 1 && qorDebugFlag::is_always_lock_free);

// Codes lie below this number. It is also the length of the array that qorDebugGetFlags returns.
inline constexpr uint32 qorDebugMaxCodes = 16384;

// Like strcmp: negative, zero or positive.
using qorStringCompare = int (*)(const char* left, const char* right, void* context) noexcept;
using qorCleanupRoutine = void (*)(void* context) noexcept;
using qorGlobalMaker = bool (*)(void* context, qorGlobalValue& made) noexcept;
using qorThreadRoutine = void (*)(void* context, qorThreadEnd& end) noexcept;
using qorTimerRoutine = void (*)(void* context, const qorTimerTick& tick) noexcept;
using qorTimerId = uint64;

namespace qor::glue {

// The entry of a reserved or free number. Nobody may call it.
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

// The layout of the table is fixed: each row sits at its number.
#define QOR_SLOT(number, result, op, parameters, arguments)                                                            \
    static_assert(offsetof(binding_table, op) == (number) * sizeof(unwritten));
#define QOR_RESERVED(number, op) static_assert(offsetof(binding_table, op) == (number) * sizeof(unwritten));
#define QOR_FREE(first, count) static_assert(offsetof(binding_table, free_##first) == (first) * sizeof(unwritten));
#include "qor/glue/slots.def"
#undef QOR_SLOT
#undef QOR_RESERVED
#undef QOR_FREE

inline constexpr uint32 slot_count = sizeof(binding_table) / sizeof(unwritten);

// What a client says about itself, as data in its file, for whoever explains a binding (qor-check): what it needs of
// the table, and where it looks for libqor. The binding uses the same data. Numbers are in the byte order of the
// machine.
struct client_description {
    char magic[8] = {'q', 'o', 'r', ' ', 'a', 'p', 'p', '\n'};
    uint32 layout = 1;
    uint32 size = 0; // of all of it
    uint32 table_length = slot_count;
    char version[20] = QOR_VERSION; // of the headers
    char folder[216] = QOR_LIBRARY_FOLDER;
    uint8 needed[(slot_count + 7) / 8] = {}; // a bit for each row, 1 for one that has an operation
};

inline constexpr client_description client = [] {
    client_description made;
    made.size = sizeof made;
#define QOR_SLOT(number, result, op, parameters, arguments)                                                            \
    made.needed[(number) / 8] = static_cast<uint8>(made.needed[(number) / 8] | 1u << (number) % 8);
#define QOR_RESERVED(number, op)
#define QOR_FREE(first, count)
#include "qor/glue/slots.def"
#undef QOR_SLOT
#undef QOR_RESERVED
#undef QOR_FREE
    return made;
}();

// Returns the first row that a client needs and a table lacks: the length of the table if that is too short, no_row if
// it lacks none. The table of an older library is shorter, or lacks some entries. Its length is checked first, because
// nothing beyond it may be read.
inline constexpr uint32 no_row = 0xffffffff;
inline uint32 missing_row(const void* table, uint32 length, const uint8* needed) noexcept {
    uint32 had = 0;
    unwritten entry;
    std::memcpy(&entry, table, sizeof entry);
    if (entry != nullptr)
        had = reinterpret_cast<uint32 (*)() noexcept>(entry)();
    if (had < length)
        return had;
    for (uint32 number = 0; number < length; ++number) {
        std::memcpy(&entry, static_cast<const char*>(table) + number * sizeof entry, sizeof entry);
        if ((needed[number / 8] >> number % 8 & 1) != 0 && entry == nullptr)
            return number;
    }
    return no_row;
}

// Returns whether a library's table has every operation that this client was compiled for.
inline bool is_sufficient(const binding_table& table) noexcept {
    return missing_row(&table, client.table_length, client.needed) == no_row;
}

// The one export of libqor has this type and the name glue_binding_point.
using binding_point = const binding_table*() noexcept;

#ifdef QOR_INSIDE

#define QOR_SLOT(number, result, op, parameters, arguments) result op parameters noexcept;

constexpr bool is_bound() noexcept { return true; }

#else

// Null until the first bound call. Two threads that bind at the same time load the same library and store the same
// pointer, so no further synchronisation is needed; the variable is atomic only to avoid a data race.
QOR_HIDDEN inline constinit std::atomic<const binding_table*> s_funcs{nullptr};

// Loads libqor and stores its table. Ends the process with exit code 100 if that fails (impl_<platform>.h).
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

// The file name in every assertion of the binding and the primitives. It is the same on all platforms: the text of an
// assertion is part of the contract and does not depend on the file that raises it.
inline constexpr char impl_file[] = "qorcore/include/qor/glue/impl_windows";

// Reports through slot 33, but never binds in order to do so: an assertion before the binding is silent.
inline void assert_failed(const char* expr, const char* func, const char* file, int line) noexcept {
    if (is_bound())
        qorAssertFailed(expr, func, file, line);
}

#ifndef QOR_INSIDE

inline constexpr char bind_function[] = "const qor::glue::binding_table* qor::glue::bind()";

// The last step of bind() on every platform: checks the library's table, stores it and returns it. If the table is
// unusable, calls `end`, which ends the process; its argument says whether operations are missing.
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
