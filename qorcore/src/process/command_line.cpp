// Options of programs: a leading word "--name" or "-name", followed by "=value" if the option takes one.
#include "qor/qor.h"

#include <cstring>

bool qor::glue::qorNextOption(qorStringArray& args, qorString& name, qorString& value) noexcept {
    if (args.IsEmpty())
        return false;
    const char* const word = args[0];
    if (word[0] != '-' || word[1] == '\0')
        return false;
    if (std::strcmp(word, "--") == 0) {
        args.RemoveAt(0, 1);
        return false;
    }
    const char* const begin = word + (word[1] == '-' ? 2 : 1);
    const char* const equals = std::strchr(begin, '=');
    name.Set(begin, equals != nullptr ? static_cast<int32>(equals - begin) : -1);
    value.Set(equals != nullptr ? equals + 1 : "");
    args.RemoveAt(0, 1);
    return true;
}
