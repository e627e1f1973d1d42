// All that a client of the framework needs, in one include: compile with -I qorcore/include; there is nothing to
// link. The first call loads libqor; if it cannot be loaded, the process ends with exit code 100.
//
// This holds for every operation that does not say otherwise:
//
// - Units: sizes, lengths and positions are bytes, texts are UTF-8, waits are milliseconds.
// - Ownership: what an operation is given stays the caller's, and is copied where it is needed later. An interface that
//   is written to an out-parameter comes with a reference for the caller; `zetSmartPointer<TYPE>::Out()` takes it.
// - Threads: free functions may be called on any thread, an object on one thread at a time, different objects on
//   several.
// - Errors: an operation that fails returns false and sets the last error of the thread (qor/system/Error.h); success
//   leaves it as it was. A broken precondition is reported as an assertion, and the operation goes on.
// - Memory: an operation that says so throws std::bad_alloc where memory runs out. In every other the process ends with
//   a report.
#pragma once

#include "qor/glue/binding.h"
#include "qor/glue/impl_common.h"
#include "qor/glue/primitives.h"
#include "qor/system/Colour.h"
#include "qor/system/Debug.h"
#include "qor/system/DebugControl.h"
#include "qor/system/DebugUsers.h"
#include "qor/system/Digest.h"
#include "qor/system/Error.h"
#include "qor/system/File.h"
#include "qor/system/Folder.h"
#include "qor/system/Geometry.h"
#include "qor/system/Interface.h"
#include "qor/system/Memory.h"
#include "qor/system/NetInterface.h"
#include "qor/system/Network.h"
#include "qor/system/Password.h"
#include "qor/system/Process.h"
#include "qor/system/SerialPort.h"
#include "qor/system/Simd.h"
#include "qor/system/Stream.h"
#include "qor/system/String.h"
#include "qor/system/StringArray.h"
#include "qor/system/SystemInfo.h"
#include "qor/system/Time.h"
#include "qor/system/Timecode.h"
#include "qor/system/Types.h"
#include "qor/system/User.h"
#include "qor/system/Vector.h"
#include "qor/system/mt/NumericArray_impl.h"
#include "qor/system/template/Array.h"
#include "qor/system/template/Object.h"
#include "qor/system/template/SmartPointer.h"
