// Inside the library: what the operations of configuration share.
#pragma once

#include "platform/raw_file.h"
#include "qor/glue/config_document.h"

#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <vector>

namespace qor::config {

// ---- implemented for each system

// The folders of the system's configuration, uppermost first. Returns none and sets the last error if it has none.
std::vector<std::string> system_folders();

// Whether a part of a name may be used in a path here.
bool is_usable(std::string_view part) noexcept;

// ---- files

struct file_text {
    std::string path;
    std::string text;
    bool operator==(const file_text&) const noexcept = default;
};

// The texts of files, uppermost first.
using contents = std::vector<file_text>;

// Reads those of `files` that exist, each below its drop-ins. Returns false and sets the last error on failure.
bool read_files(const std::vector<std::string>& files, contents& out);

// The folder of the drop-ins of a file.
std::string drop_in_folder(const std::string& file);

// The same of one file; `exists` says whether there is one.
bool read_file(const std::string& path, std::string& text, bool& exists);

// Excludes other writers of a file, in all processes. The lock is a file beside it, which stays, and ends with the
// process. Returns false and sets the last error if the lock cannot be had.
class file_lock {
public:
    bool take(const std::string& path);

private:
    platform::raw_file m_file;
};

// Creates a tree. Returns false and sets the last error on failure.
bool parse(const file_text& from, zetSmartPointer<IQORConfigDocument>& out);

// ---- trees in layers, uppermost first

using layers = std::span<IQORConfigNode* const>;

// The operations of IQORConfigNode with these names, over all layers.
bool get_value(layers all, const char* path, const qorConfigWish& wish, qorConfigValue& out);
bool get_names(layers all, const char* path, qorStringArray& out);
bool get_origin(layers all, const char* path, qorConfigOrigin& out);

// Whether a value at `path` in a layer below would not be seen. `out` is the place of what covers it.
bool is_covered(layers above, const char* path, qorConfigOrigin& out);

// ---- a watch

// A configuration at which a thread of the framework looks.
class watch {
public:
    watch() noexcept = default;
    watch(const watch&) = delete;
    watch& operator=(const watch&) = delete;
    ~watch() { stop(); }

    // Begins to look at `files` and their drop-ins. `known` is what the client knows. Returns false and sets the last
    // error on failure.
    bool start(std::vector<std::string> files, contents known, IQORConfigWatcher* watcher);

    // Ends that, and waits for a call that is under way, unless it is the calling thread's.
    void stop() noexcept;

    // While the result exists, nobody looks.
    std::unique_lock<std::mutex> pause();

    // What the client knows from now on; during a pause.
    void set_known(contents known);

    struct state; // shared with the thread

private:
    std::shared_ptr<state> m_state;
};

} // namespace qor::config
