#include "secret_input.h"

#include "secret_memory.h"

void wipe_string(qorString& text) {
    wipe(text.m_data.text, text.m_data.alloc);
    text.Empty();
}
