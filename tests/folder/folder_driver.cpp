// Applies operations of folders, in the form of line_driver.h.
#include "support/line_driver.h"

#include <map>
#include <string>
#include <vector>

namespace {

using namespace line_driver;

std::string kind(qorFileKind kind) { return std::to_string(static_cast<uint32>(kind)); }

// Counts from 1970, as Python does.
std::string nanoseconds(uint64 ticks, uint8 rest) {
    return ticks == 0 ? "none" : std::to_string((static_cast<int64>(ticks) - 116'444'736'000'000'000) * 100 + rest);
}

bool list(const words& w, std::string& out) {
    zetSmartPointer<IQORFolderContents> contents;
    if (!qorGetFolderContents(w[1].c_str(), contents.Out()))
        return false;
    for (const qorFolderEntry& each : contents->Entries())
        out += " " + hexadecimal(each.Name()) + "," + kind(each.kind) + "," + std::to_string(each.size) + "," +
               nanoseconds(each.modified, 0);
    return true;
}

bool info(const words& w, std::string& out) {
    const bool follow = w[2] == "1";
    const auto brief = qorGetFileInfo(w[1].c_str(), follow);
    const auto all = qorGetFileInfoEx(w[1].c_str(), follow);
    if (!brief || !all)
        return false;
    if (brief->kind != all->kind || brief->size != all->size || brief->modified != all->modified)
        out += " different";
    for (const uint64 number : {uint64{all->rights}, all->size, all->links, all->allocated, uint64{all->owner},
                                uint64{all->group}, all->id[0]})
        out += " " + std::to_string(number);
    out += " " + kind(all->kind) + " " + nanoseconds(all->modified, all->modified_rest) + " " +
           nanoseconds(all->accessed, all->accessed_rest) + " " + nanoseconds(all->changed, all->changed_rest) + " " +
           hexadecimal(all->owner_name) + " " + hexadecimal(all->group_name) + " " + hexadecimal(all->target);
    return true;
}

bool exists(const words& w, std::string& out) {
    out = std::string(qorFileExists(w[1].c_str()) ? " file" : "") + (qorDirectoryExists(w[1].c_str()) ? " folder" : "");
    return true;
}

bool text(bool done, const qorString& found, std::string& out) {
    out = " " + hexadecimal(found);
    return done;
}

const std::map<std::string, operation> operations = {
    {"list", list},
    {"info", info},
    {"exists", exists},
    {"create", [](const words& w, std::string&) { return qorCreateDirectory(w[1].c_str()); }},
    {"create-path", [](const words& w, std::string&) { return qorCreateDirectoryPath(w[1].c_str()); }},
    {"delete-tree", [](const words& w, std::string&) { return qorDeleteDirectoryAndContents(w[1].c_str()); }},
    {"delete", [](const words& w, std::string&) { return qorDeleteFile(w[1].c_str()); }},
    {"rename", [](const words& w, std::string&) { return qorRenameFile(w[1].c_str(), w[2].c_str(), w[3] == "1"); }},
    {"unique",
     [](const words& w, std::string& out) {
         qorString path;
         return text(qorCreateUniqueDirectory(w[1].c_str(), w[2].c_str(), path), path, out);
     }},
    {"temporary",
     [](const words&, std::string& out) {
         qorString path;
         return text(qorGetTempFolder(path), path, out);
     }},
    {"translate",
     [](const words& w, std::string& out) {
         qorString path;
         return text(qorTranslatePath(w[1].c_str(), path), path, out);
     }},
    {"disks",
     [](const words&, std::string& out) {
         zetSmartPointer<IQORRemovableDiskList> disks;
         if (!qorGetRemovableDiskList(disks.Out()))
             return false;
         out = " " + std::to_string(disks->GetCount());
         return true;
     }},
};

} // namespace

int main() { return apply_lines(operations, 4); }
