#include "search.h"

#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <link.h>
#include <memory>
#include <unistd.h>

namespace qor::check {
namespace {

constexpr char file_name[] = "libqor.so";

// Loads the file of a place, if there is one that can be loaded.
void* load(place& from) {
    if (access(from.path.c_str(), F_OK) != 0)
        return nullptr;
    if (!glue::is_whole(from.path.c_str())) {
        from.result = verdict::no_library;
        return nullptr;
    }
    void* const library = dlopen(from.path.c_str(), RTLD_NOW | RTLD_LOCAL);
    from.result = library != nullptr ? verdict::loaded : verdict::refused;
    if (library == nullptr)
        if (const char* const text = dlerror())
            from.reason = text;
    return library;
}

// The folders in which the loader looks for libraries of any program: those of LD_LIBRARY_PATH, and the system's.
void add_system_folders(std::vector<std::string>& of_user, std::vector<std::string>& of_system) {
    void* const self = dlopen(nullptr, RTLD_LAZY);
    Dl_serinfo measure;
    if (self == nullptr || dlinfo(self, RTLD_DI_SERINFOSIZE, &measure) != 0)
        return;
    const std::unique_ptr<Dl_serinfo, decltype(&std::free)> places(
        static_cast<Dl_serinfo*>(std::malloc(measure.dls_size)), std::free);
    if (places == nullptr)
        return;
    *places = measure;
    if (dlinfo(self, RTLD_DI_SERINFO, places.get()) != 0)
        return;
    constexpr unsigned is_of_user = 2; // LA_SER_LIBPATH of <link.h>
    for (unsigned i = 0; i < places->dls_cnt; ++i) {
        const Dl_serpath& each = places->dls_serpath[i];
        ((each.dls_flags & is_of_user) != 0 ? of_user : of_system).emplace_back(each.dls_name);
    }
}

// The binding's last attempt: by the name alone. The first file along the path decides.
void* find_by_name(const program& of, std::vector<place>& places) {
    std::vector<std::string> folders = of.folders_before;
    std::vector<std::string> of_system;
    add_system_folders(folders, of_system);
    folders.insert(folders.end(), of.folders_behind.begin(), of.folders_behind.end());
    folders.insert(folders.end(), of_system.begin(), of_system.end());
    for (const std::string& each : folders) {
        place& at = places.emplace_back(place{each + '/' + file_name, verdict::missing, {}, true});
        if (void* const library = load(at))
            return library;
        if (at.result != verdict::missing)
            return nullptr;
    }
    // The loader's cache can have more.
    void* const library = dlopen(file_name, RTLD_NOW | RTLD_LOCAL);
    link_map* map = nullptr;
    if (library != nullptr && dlinfo(library, RTLD_DI_LINKMAP, &map) == 0)
        places.push_back({map->l_name, verdict::loaded, {}, true});
    return library;
}

} // namespace

void* find_library(const program& of, std::vector<place>& places) {
    const std::string installed = of.folder + '/' + file_name;
    for (const char* const each : {file_name, installed.c_str()}) {
        std::vector<char> path(of.path.size() + std::strlen(each) + 2);
        std::memcpy(path.data(), of.path.c_str(), of.path.size());
        char* const slash = std::strrchr(path.data(), '/');
        if (slash == nullptr || !glue::make_library_path(path.data(), slash, each))
            continue;
        if (void* const library = load(places.emplace_back(place{path.data(), verdict::missing, {}, false})))
            return library;
    }
    return find_by_name(of, places);
}

const void* table_of(void* library, bool& has_entry) {
    void* const entry = dlsym(library, "glue_binding_point");
    has_entry = glue::is_function(entry);
    return has_entry ? reinterpret_cast<glue::binding_point*>(entry)() : nullptr;
}

} // namespace qor::check
