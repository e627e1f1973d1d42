// Trees in layers: a table consists of the entries of all layers, and of the rest the uppermost counts.
#include "config/config.h"
#include "error/error.h"

#include <ranges>
#include <set>

namespace {

using node_list = std::vector<IQORConfigNode*>;

bool read_path(const char* path, std::vector<qor::config::part>& parts) {
    if (path != nullptr && qor::config::read_path(path, parts))
        return true;
    qor::error::set(qorError_config_path, {path != nullptr ? path : ""});
    return false;
}

qorConfigKind kind_of(IQORConfigNode& node, const std::string& path) {
    qorConfigValue value;
    node.GetValue(path.c_str(), {}, value);
    return value.kind;
}

// Keeps those layers whose value at `path` can be seen: the uppermost value, or the tables over the first value that is
// no table.
void keep_visible(node_list& layers, const std::string& path) {
    node_list kept;
    for (IQORConfigNode* each : layers) {
        const qorConfigKind kind = kind_of(*each, path);
        if (kind == qorConfigKind::table || (kind != qorConfigKind::none && kept.empty()))
            kept.push_back(each);
        if (kind != qorConfigKind::table && kind != qorConfigKind::none)
            break;
    }
    layers = std::move(kept);
}

// Finds the layers whose value at a path can be seen, uppermost first. Returns false if it is no path.
bool find(qor::config::layers all, const char* path, node_list& out) {
    std::vector<qor::config::part> parts;
    if (!read_path(path, parts))
        return false;
    out.assign(all.begin(), all.end());
    if (out.size() == 1)
        return true; // there is nothing to choose from
    for (std::size_t i = 0; i < parts.size() && !out.empty(); ++i)
        keep_visible(out, std::string(path, parts[i].end));
    return true;
}

bool fail_without_value(const char* path) {
    qor::error::set(qorError_config_no_value, {"", path});
    return false;
}

} // namespace

bool qor::config::get_value(layers all, const char* path, const qorConfigWish& wish, qorConfigValue& out) {
    out = {};
    node_list found;
    if (!find(all, path, found))
        return false;
    if (found.empty())
        return true;
    if (!found.front()->GetValue(path, wish, out))
        return false;
    if (out.kind == qorConfigKind::table && found.size() > 1) {
        qorStringArray names;
        get_names(found, path, names);
        out.count = names.GetCount();
    }
    return true;
}

bool qor::config::get_names(layers all, const char* path, qorStringArray& out) {
    out.Empty();
    node_list found;
    if (!find(all, path, found))
        return false;
    if (found.empty())
        return fail_without_value(path);
    std::set<std::string, std::less<>> known;
    for (const auto& each : std::views::reverse(found)) {
        qorStringArray names;
        if (!each->GetNames(path, names))
            return false;
        for (const qorString& name : names)
            if (known.emplace(std::string_view(name)).second)
                out.Append(std::string_view(name));
    }
    return true;
}

bool qor::config::get_origin(layers all, const char* path, qorConfigOrigin& out) {
    node_list found;
    if (!find(all, path, found))
        return false;
    return found.empty() ? fail_without_value(path) : found.front()->GetOrigin(path, out);
}

bool qor::config::is_covered(layers above, const char* path, qorConfigOrigin& out) {
    std::vector<part> parts;
    if (!read_path(path, parts))
        return false;
    for (IQORConfigNode* const each : above)
        for (std::size_t i = 0; i < parts.size(); ++i) {
            const std::string prefix(path, parts[i].end);
            const qorConfigKind kind = kind_of(*each, prefix);
            if (kind == qorConfigKind::none)
                break;
            if (kind != qorConfigKind::table || i + 1 == parts.size())
                return each->GetOrigin(prefix.c_str(), out);
        }
    return false;
}
