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

bool qor::control::write_private_file(const std::string& path, std::string_view text, std::string& reason) {
    if (!make_private_folders(path, reason))
        return false;
    if (qorReplaceFile(path.c_str(), text, qorReplacePrivate))
        return true;
    // The reason alone, because the caller names the file.
    qorString insert, whole;
    if (qorGetLastError(whole) == qorError_no_disk_file)
        reason = reason_of(private_file_fault::no_plain_file);
    else
        reason = qorGetLastErrorInsert(2, insert) ? insert.Text() : whole.Text();
    return false;
}
