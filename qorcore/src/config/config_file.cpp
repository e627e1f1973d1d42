// The configuration file: its text and that of its drop-ins in layers, and the changes that are not saved.
#include "config/config_file.h"

#include "error/error.h"
#include "memory/allocator.h"

#include <algorithm>

namespace {

constexpr char source[] = "qorcore/src/config/config_file";

using qor::config::contents;

// A change that has been made in the tree, to be made again when others have changed the file.
struct change {
    enum class what { value, literal, removal } kind;
    std::string path;
    qorConfigValue value;
    std::string text; // of a value, or the literal
};

// The layers of one state of the files.
struct state {
    contents read; // what was read; the file that is written is in it, also if it does not exist
    std::vector<zetSmartPointer<IQORConfigDocument>> trees;
    std::vector<IQORConfigNode*> nodes;
    std::size_t main = 0; // the index of the file that is written

    IQORConfigDocument& main_tree() const { return **trees[main]; }
    qor::config::layers above() const { return qor::config::layers(nodes).first(main); }
};

class config_file final : public qor::object<IQORConfigFile> {
public:
    // `files` are the main files, uppermost first; `path` is the one that is written.
    config_file(std::vector<std::string> files, std::string path)
        : object("qorcore.config_file", "IQORConfigFile", "IQORConfigNode"), m_files(std::move(files)),
          m_path(std::move(path)) {}

    bool load() { return read(m_state); }

    void GetPath(qorString& out) noexcept override { out = m_path; }
    bool IsModified() noexcept override { return !m_changes.empty(); }

    bool GetValue(const char* path, const qorConfigWish& wish, qorConfigValue& out) noexcept override {
        return qor::config::get_value(m_state.nodes, path, wish, out);
    }
    bool GetNames(const char* path, qorStringArray& out) noexcept override {
        return qor::config::get_names(m_state.nodes, path, out);
    }
    bool GetOrigin(const char* path, qorConfigOrigin& out) noexcept override {
        return qor::config::get_origin(m_state.nodes, path, out);
    }

    bool SetValue(const char* path, const qorConfigValue& value) noexcept override {
        if (!is_effective(path) || !m_state.main_tree().SetValue(path, value))
            return false;
        m_changes.push_back({change::what::value, path, value, {}});
        if (value.kind == qorConfigKind::text)
            m_changes.back().text.assign(value.text, value.length);
        return true;
    }
    bool SetLiteral(const char* path, const char* literal) noexcept override {
        if (!is_effective(path) || !m_state.main_tree().SetLiteral(path, literal)) // refuses null
            return false;
        m_changes.push_back({change::what::literal, path, {}, literal});
        return true;
    }
    bool Remove(const char* path) noexcept override {
        if (!m_state.main_tree().Remove(path))
            return false;
        m_changes.push_back({change::what::removal, path, {}, {}});
        return true;
    }

    bool Save() noexcept override {
        if (m_changes.empty())
            return true;
        qor::config::file_lock lock;
        if (!lock.take(m_path))
            return false;
        const auto quiet = m_watch.pause();
        state now;
        if (!renew(now))
            return false;
        const std::string_view text = now.main_tree().GetText();
        if (!qor::glue::qorReplaceFile(m_path.c_str(), text.data(), text.size(), 0)) {
            take_over(std::move(now));
            return false;
        }
        now.read[now.main].text = text;
        take_over(std::move(now));
        m_changes.clear();
        return true;
    }

    bool Reload() noexcept override {
        const auto quiet = m_watch.pause();
        state now;
        if (!renew(now))
            return false;
        take_over(std::move(now));
        return true;
    }

    bool Watch(IQORConfigWatcher* watcher) noexcept override {
        m_watch.stop();
        return watcher == nullptr || m_watch.start(m_files, m_state.read, watcher);
    }

private:
    // Reads and parses all files.
    bool read(state& out) {
        if (!qor::config::read_files(m_files, out.read))
            return false;
        const auto is_main = [this](const qor::config::file_text& each) { return each.path == m_path; };
        auto found = std::find_if(out.read.begin(), out.read.end(), is_main);
        if (found == out.read.end()) // it stands in front of what belongs to the files below it
            found = out.read.insert(behind_own_drop_ins(out.read), {m_path, {}});
        out.main = static_cast<std::size_t>(found - out.read.begin());
        for (const qor::config::file_text& each : out.read) {
            zetSmartPointer<IQORConfigDocument> tree;
            if (!qor::config::parse(each, tree))
                return false;
            out.nodes.push_back(*tree);
            out.trees.push_back(std::move(tree));
        }
        return true;
    }

    contents::iterator behind_own_drop_ins(contents& read) const {
        const auto last = std::find(m_files.begin(), m_files.end(), m_path);
        return std::find_if(read.begin(), read.end(), [&](const qor::config::file_text& each) {
            return std::any_of(last + 1, m_files.end(), [&](const std::string& file) {
                const std::string folder = qor::config::drop_in_folder(file);
                return each.path == file ||
                       (each.path.starts_with(folder) && each.path.find_last_of("/\\") == folder.size());
            });
        });
    }

    // The present state of the files, with the changes. If the files are as they were, that is the state here.
    bool renew(state& out) {
        if (!read(out))
            return false;
        if (out.read == m_state.read) {
            out = m_state;
            return true;
        }
        return std::all_of(m_changes.begin(), m_changes.end(),
                           [&out](const change& each) { return make(each, out.main_tree()); });
    }

    void take_over(state now) {
        m_state = std::move(now);
        m_watch.set_known(m_state.read);
    }

    static bool make(const change& each, IQORConfigDocument& tree) {
        if (each.kind == change::what::literal)
            return tree.SetLiteral(each.path.c_str(), each.text.c_str());
        qorConfigValue value = each.value;
        if (each.kind == change::what::value) {
            value.text = each.text.c_str();
            return tree.SetValue(each.path.c_str(), value);
        }
        // Another may have removed it before.
        return !tree.GetValue(each.path.c_str(), {}, value) || value.kind == qorConfigKind::none ||
               tree.Remove(each.path.c_str());
    }

    // Refuses a change that a drop-in or a file above would hide.
    bool is_effective(const char* path) {
        qorConfigOrigin by;
        if (!qor::config::is_covered(m_state.above(), path, by))
            return true;
        qor::error::set(qorError_config_overridden,
                        {path, m_path.c_str(), by.file.Text(), std::to_string(by.line).c_str()});
        return false;
    }

    const std::vector<std::string> m_files;
    const std::string m_path;
    state m_state;
    std::vector<change> m_changes;
    qor::config::watch m_watch;
};

// Creates a file, unless another process does so at the same time.
bool create_file(const std::string& path, const char* text, uint32 folder_rights) {
    const qor::config::file_text first{path, text};
    zetSmartPointer<IQORConfigDocument> tree;
    qorString folder, name, extension;
    qorString(path).FileSplitName(folder, name, extension);
    qor::config::file_lock lock;
    if (!qor::config::parse(first, tree) || !qor::glue::qorCreateDirectoryPath(folder, folder_rights) ||
        !lock.take(path))
        return false;
    std::string ignored;
    bool exists = false;
    if (!qor::config::read_file(path, ignored, exists))
        return false;
    return exists || qor::glue::qorReplaceFile(path.c_str(), first.text.data(), first.text.size(), 0);
}

} // namespace

bool qor::config::open_files(std::vector<std::string> files, const char* text, uint32 folder_rights,
                             IQORConfigFile** out) {
    contents found;
    if (!read_files(files, found))
        return false;
    if (found.empty() && text == nullptr) {
        error::set(qorError_config_missing, {files.front().c_str()});
        return false;
    }
    if (found.empty() && !create_file(files.front(), text, folder_rights))
        return false;
    const auto exists = [&found](const std::string& file) {
        return std::any_of(found.begin(), found.end(), [&file](const file_text& each) { return each.path == file; });
    };
    const auto main = std::find_if(files.begin(), files.end(), exists);
    const std::string path = main != files.end() ? *main : files.front();
    zetSmartPointer<config_file> made;
    config_file* object = nullptr;
    if (!memory::make<config_file>(source, __LINE__, &object, std::move(files), path))
        return false;
    made.AttachNew(object);
    if (!made->load())
        return false;
    made->AddRef();
    *out = *made;
    return true;
}
