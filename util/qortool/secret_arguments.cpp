#include "secret_arguments.h"

#include "secret_memory.h"

#include <cstring>

namespace {

int argument_count = 0;
char* const* arguments = nullptr;

} // namespace

void remember_arguments(int argc, char* const* argv) {
    argument_count = argc;
    arguments = argv;
}

void hide_argument(const char* text) {
    for (int i = 1; i < argument_count; ++i)
        if (std::strcmp(arguments[i], text) == 0)
            wipe(arguments[i], std::strlen(arguments[i]));
    wipe_system_command_line();
}

void wipe_element(qorStringArray& array, uint32 index) {
    const qorString& element = array.m_data.elements[index];
    wipe(element.m_data.text, element.m_data.length);
}
