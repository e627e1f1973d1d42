// All that a client of the framework needs, in one include: compile with -I qorcore/include; there is nothing to
// link. The first call loads libqor; if it cannot be loaded, the process ends with exit code 100.
#pragma once

#include "qor/glue/binding.h"
#include "qor/glue/impl_common.h"
#include "qor/glue/primitives.h"
#include "qor/system/Debug.h"
#include "qor/system/Error.h"
#include "qor/system/File.h"
#include "qor/system/Interface.h"
#include "qor/system/Memory.h"
#include "qor/system/Process.h"
#include "qor/system/Simd.h"
#include "qor/system/Stream.h"
#include "qor/system/String.h"
#include "qor/system/StringArray.h"
#include "qor/system/Time.h"
#include "qor/system/Types.h"
#include "qor/system/Vector.h"
#include "qor/system/template/Array.h"
#include "qor/system/template/SmartPointer.h"
