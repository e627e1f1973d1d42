#include "platform/resources.h"

#include "platform/own_process.h"
#include "platform/raw_file.h"

std::string qor::platform::find_resource(std::string_view name) {
    const std::string beside = library_folder() + std::string(name);
    const std::string installed = library_folder() + "qor/" + std::string(name);
    const auto look = [](const std::string& path) { return raw_file().open(path.c_str(), raw_file::access::regular); };
    const int reason = look(beside);
    // An existing but unusable file is the answer only if there is no other file.
    const bool is_beside = reason == 0 || (!raw_file::is_missing(reason) && raw_file::is_missing(look(installed)));
    return is_beside ? beside : installed;
}
