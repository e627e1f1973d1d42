// Applies operations of folders, one for each line of standard input: words between blanks, each word in hexadecimal
// digits, so that it may be any bytes. The answer is a line that begins with "ok" or "error NUMBER"; texts in it are in
// the same form.
#include "qor/qor.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace {

using words = std::vector<std::string>;

std::string hexadecimal(std::string_view text) {
    std::string out = "x";
    for (const char byte : text) {
        constexpr char digits[] = "0123456789abcdef";
        out += digits[static_cast<unsigned char>(byte) >> 4];
        out += digits[static_cast<unsigned char>(byte) & 15];
    }
    return out;
}

std::string plain(std::string_view text) {
    std::string out;
    for (std::size_t i = 1; i + 1 < text.size(); i += 2)
        out += static_cast<char>(std::stoi(std::string(text.substr(i, 2)), nullptr, 16));
    return out;
}

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

const std::map<std::string, bool (*)(const words&, std::string&)> operations = {
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

int main() {
    std::string line;
    for (int byte; (byte = std::getchar()) != EOF;) {
        if (byte == '\r')
            continue;
        if (byte != '\n') {
            line += static_cast<char>(byte);
            continue;
        }
        words given;
        for (std::size_t begin = 0; begin < line.size();) {
            const std::size_t end = std::min(line.find(' ', begin), line.size());
            given.push_back(plain(line.substr(begin, end - begin)));
            begin = end + 1;
        }
        line.clear();
        const auto operation = operations.find(given.empty() ? "" : given[0]);
        given.resize(4);
        if (operation == operations.end()) {
            std::fputs("unknown operation\n", stderr);
            return 2;
        }
        std::string answer;
        if (operation->second(given, answer)) {
            std::printf("ok%s\n", answer.c_str());
        } else {
            qorString message;
            const uint32 number = qorGetLastError(message);
            std::printf("error %u %s\n", number, hexadecimal(message).c_str());
        }
        std::fflush(stdout);
    }
    return 0;
}
