// Checks an action's options and arguments.
#pragma once

#include "qor/qor.h"

// Checks an action that takes `count` arguments and one option, `option`, without a value. Null means no option.
class action_arguments {
public:
    enum class fault { none, unknown_option, wrong_count };

    // Removes the options from `args`, stopping at an unknown one.
    action_arguments(qorStringArray& args, uint32 count, const char* option = nullptr);

    fault found() const noexcept { return m_fault; }
    bool has_option() const noexcept { return m_has_option; }

    // Reports the fault on standard error. Returns true if there is no fault.
    bool accept(const char* action) const;

private:
    fault m_fault = fault::none;
    bool m_has_option = false;
    qorString m_unknown_option;
};

// Checks an action without options. Returns false after the user has been told of the fault.
inline bool check_arguments(qorStringArray& args, const char* action, uint32 count) {
    return action_arguments(args, count).accept(action);
}
