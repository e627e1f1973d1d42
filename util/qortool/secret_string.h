// Strings that hold a password.
#pragma once

#include "qor/qor.h"
#include "secret_memory.h"

// Overwrites the whole memory of a string, then empties it.
inline void wipe_string(qorString& text) {
    wipe(text.m_data.text, text.m_data.alloc);
    text.Empty();
}
