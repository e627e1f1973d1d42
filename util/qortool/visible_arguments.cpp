#include "visible_arguments.h"

#include "secret_memory.h"

#include <cstring>

namespace {

int word_count = 0;
char* const* words = nullptr;

} // namespace

void keep_arguments(int argc, char* const* argv) {
    word_count = argc;
    words = argv;
}

void hide_argument(const char* text) {
    for (int i = 1; i < word_count; ++i)
        if (std::strcmp(words[i], text) == 0)
            wipe(words[i], std::strlen(words[i]));
    wipe_system_command_line();
}

void wipe_element(qorStringArray& array, uint32 index) {
    const qorString& element = array.m_data.elements[index];
    wipe(element.m_data.text, element.m_data.length);
}
