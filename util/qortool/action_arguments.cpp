#include "action_arguments.h"

#include "message_names.h"

namespace message = qor::messages::tool;

action_arguments::action_arguments(qorStringArray& args, uint32 count, const char* option) {
    qorString name;
    qorString value;
    while (qorNextOption(args, name, value)) {
        if (option == nullptr || name.Compare(option) != 0) {
            m_fault = fault::unknown_option;
            m_unknown_option = name;
            return;
        }
        m_has_option = true;
    }
    if (args.GetCount() != count)
        m_fault = fault::wrong_count;
}

bool action_arguments::accept(const char* action) const {
    if (m_fault == fault::unknown_option)
        fputmsg(stderr, message::catalog, message::unknown_action_option, action, m_unknown_option);
    else if (m_fault == fault::wrong_count)
        fputmsg(stderr, message::catalog, message::wrong_argument_count, action);
    return m_fault == fault::none;
}
