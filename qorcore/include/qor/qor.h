// Everything that a client of the framework needs, in one include. Compile with -I qorcore/include; there is nothing to
// link. The first call loads libqor; if it cannot be loaded, the process ends with exit code 100.
//
// These rules hold for every operation, unless its comment says otherwise:
//
// - Units: sizes, lengths and positions are in bytes, texts are UTF-8, waits are in milliseconds.
// - Ownership: the caller keeps ownership of arguments; an operation copies what it needs later. An interface written
//   to an out-parameter comes with a reference for the caller; `zetSmartPointer<TYPE>::Out()` takes it.
// - Threads: any thread may call a free function. Only one thread at a time may use an object; different objects may be
//   used on different threads.
// - Errors: an operation that fails returns false and sets the last error of the thread (qor/system/Error.h); success
//   leaves the last error unchanged. A broken precondition is reported as an assertion, and the operation continues.
// - Memory: an operation throws std::bad_alloc only if its comment says so. In all others, the process ends with a
//   report when memory runs out.
#pragma once

#include "qor/glue/binding.h"
#include "qor/glue/impl_common.h"
#include "qor/glue/primitives.h"
#include "qor/system/AttributeSet.h"
#include "qor/system/BlockTracker.h"
#include "qor/system/ChildProcess.h"
#include "qor/system/Colour.h"
#include "qor/system/Component.h"
#include "qor/system/Config.h"
#include "qor/system/Debug.h"
#include "qor/system/DebugControl.h"
#include "qor/system/DebugUsers.h"
#include "qor/system/Digest.h"
#include "qor/system/Error.h"
#include "qor/system/File.h"
#include "qor/system/FileInfo.h"
#include "qor/system/FileStream.h"
#include "qor/system/Folder.h"
#include "qor/system/Geometry.h"
#include "qor/system/GlobalSlot.h"
#include "qor/system/Interface.h"
#include "qor/system/Ipc.h"
#include "qor/system/Listener.h"
#include "qor/system/Lists.h"
#include "qor/system/LogEntry.h"
#include "qor/system/Map.h"
#include "qor/system/Memory.h"
#include "qor/system/NetInterface.h"
#include "qor/system/Network.h"
#include "qor/system/ObjectStore.h"
#include "qor/system/Password.h"
#include "qor/system/Process.h"
#include "qor/system/ReadWriteLock.h"
#include "qor/system/RemovableDisk.h"
#include "qor/system/SerialPort.h"
#include "qor/system/Service.h"
#include "qor/system/ServiceDescriptor.h"
#include "qor/system/Simd.h"
#include "qor/system/Stream.h"
#include "qor/system/String.h"
#include "qor/system/StringArray.h"
#include "qor/system/SystemInfo.h"
#include "qor/system/TextView.h"
#include "qor/system/Thread.h"
#include "qor/system/Time.h"
#include "qor/system/Timecode.h"
#include "qor/system/Timer.h"
#include "qor/system/Types.h"
#include "qor/system/User.h"
#include "qor/system/Variant.h"
#include "qor/system/Vector.h"
#include "qor/system/Version.h"
#include "qor/system/mt/NumericArray_impl.h"
#include "qor/system/template/Array.h"
#include "qor/system/template/Object.h"
#include "qor/system/template/Owned.h"
#include "qor/system/template/SmartPointer.h"
