// One function per forwarder, named after its number; forwarder_test.py checks their machine code.
#include "qor/qor.h"

#define QOR_SLOT(number, result, op, parameters, arguments)                                                            \
    extern "C" result forward_##number parameters noexcept;                                                            \
    extern "C" result forward_##number parameters noexcept { return qor::glue::op arguments; }
#define QOR_RESERVED(number, op)
#define QOR_FREE(first, count)
#include "qor/glue/slots.def"
#undef QOR_SLOT
#undef QOR_RESERVED
#undef QOR_FREE
