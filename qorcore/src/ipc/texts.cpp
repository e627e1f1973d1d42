#include "ipc/texts.h"

#include "message_names.h"
#include "qor/qor.h"

std::string qor::ipc::text_of(uint32 message, const char* insert) {
    const char* inserts[10];
    for (const char*& each : inserts)
        each = "";
    inserts[0] = insert;
    qorString text;
    qor::glue::qorString_Format(&text, qor::messages::framework::catalog, message, inserts);
    return {text.Text(), text.Length()};
}
