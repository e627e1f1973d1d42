// Texts in TOML, and changes in them: the first two bytes choose a place and a change. The scanner and the parser agree
// on every text; a change of a value is always possible, and so is a new value in a table, and a removal. That nothing
// else has changed is checked by the code under test with each change: a failure is an error then.
#include "document.h"
#include "qor/qor.h"

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

namespace {

void must(bool holds) {
    if (!holds)
        std::abort();
}

// Whether a new value does not exceed the limit of depth.
bool has_room_below(std::string_view path) {
    std::vector<qor::config::part> parts;
    return qor::config::read_path(path, parts) && parts.size() + 10 < qor::config::max_depth / 2;
}

// The paths of all values in a tree.
void collect(const qorConfig& at, std::vector<std::string>& out) {
    if (!at.Path().IsEmpty())
        out.emplace_back(std::string_view(at.Path()));
    for (const qorConfig& each : at)
        collect(each, out);
    for (const qorString& name : at.Names())
        collect(at[std::string_view(name)], out);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2)
        return 0;
    const std::string text(reinterpret_cast<const char*>(data) + 2, size - 2);
    zetSmartPointer<IQORConfigDocument> tree;
    tree.AttachNew(config::make_document());
    if (!tree->Parse("text", text.data(), text.size())) {
        qorString ignored;
        // Never one of those that tell of a fault of our own.
        must(qorGetLastError(ignored) != qorError_config_ambiguous);
        return 0;
    }
    must(tree->GetText() == text);
    std::vector<std::string> paths;
    collect(qorConfig(*tree), paths);
    const std::string path = paths.empty() ? "new" : paths[data[0] % paths.size()];
    const qorConfig place(*tree, path.c_str());
    switch (data[1] % 3) {
    case 0: // a new value in place of the old one
        if (place.Kind() != qorConfigKind::none && place.Kind() != qorConfigKind::array &&
            place.Kind() != qorConfigKind::table) {
            must(place.Set("", "a \"text\""));
            must(place.Get("", "") == "a \"text\"");
        }
        break;
    case 1: // a new value beside it, which goes again
        if (has_room_below(path) && place.Kind() == qorConfigKind::table &&
            place["not there yet"].Kind() == qorConfigKind::none) {
            must(place["not there yet"].SetLiteral("", "[1, {a = 2}]"));
            must(place["not there yet"].Get("[1].a", 0) == 2);
            must(place["not there yet"].Remove(""));
            must(place["not there yet"].Kind() == qorConfigKind::none);
        }
        break;
    default:
        if (!paths.empty())
            must(place.Remove(""));
    }
    return 0;
}
