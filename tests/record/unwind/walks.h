// Ways up to an action, compiled in several ways: walks.cpp says WALKS, which is one of them.
#pragma once

#include "frames.h"

namespace qor::test {

// Each is a table of the same functions.
struct walks {
    const char* name;
    void (*descend)(unsigned levels, action act, void* argument);
    void (*with_arrays)(unsigned size, action act, void* argument); // on the stack, of a size that is found out
    void (*aligned)(action act, void* argument);                    // the frame begins at a multiple of 64
    void (*through_exception)(action act, void* argument); // in a destructor while an exception looks for its handler
    void (*in_handler)(action act, void* argument);
    void (*in_coroutine)(action act, void* argument);
};

extern const walks walks_o0;
extern const walks walks_o2;
extern const walks walks_o3;
extern const walks walks_o2_frame_pointers;
extern const walks walks_os;

inline const walks* const all_walks[] = {&walks_o0, &walks_o2, &walks_o3, &walks_o2_frame_pointers, &walks_os};

} // namespace qor::test
