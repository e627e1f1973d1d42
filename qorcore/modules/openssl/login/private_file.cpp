#include "private_file.h"

#include "qor/qor.h"

std::string qor::control::reason_of(private_file_fault fault, const std::string& insert) {
    qorString text;
    text.Format(messages::framework::catalog, static_cast<uint32>(fault), insert.c_str());
    return {text.Text(), text.Length()};
}

bool qor::control::configuration_file(const char* name, std::string& path) {
    qorString folder;
    if (!qorGetFolderPath(qorFolder_qor_user_configuration, folder))
        return false;
    path = std::string(folder.Text()) + '/' + name;
    return true;
}
