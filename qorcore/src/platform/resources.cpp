#include "platform/resources.h"

#include "platform/own_process.h"
#include "platform/raw_file.h"

bool qor::platform::is_installed(std::string_view folder) noexcept {
    constexpr std::string_view name = "qor/";
    if (folder.size() <= name.size() || !(folder.ends_with(name) || folder.ends_with("qor\\")))
        return false;
    const char before = folder[folder.size() - name.size() - 1];
    return before == '/' || before == '\\';
}

std::string qor::platform::resource_folder() {
    std::string folder = library_folder();
    if (!folder.empty() && !is_installed(folder))
        folder.append("qor/");
    return folder;
}

std::string qor::platform::find_resource(std::string_view name) {
    std::string beside = library_folder().append(name);
    const std::string inside = library_folder().append("qor/").append(name);
    const auto look = [](const std::string& path) { return raw_file().open(path.c_str(), raw_file::access::regular); };
    const int reason = look(beside);
    // An existing but unusable file is the answer only if there is no other file.
    if (reason == 0)
        return beside;
    const bool has_inside = !raw_file::is_missing(look(inside));
    if (has_inside || raw_file::is_missing(reason))
        return has_inside ? inside : resource_folder().append(name);
    return beside;
}
