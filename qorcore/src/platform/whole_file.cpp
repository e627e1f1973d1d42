#include "platform/whole_file.h"

#include "platform/raw_file.h"

bool qor::platform::read_whole(const char* path, std::size_t max_size, std::string& content) {
    raw_file file;
    if (file.open(path, raw_file::access::regular) != 0)
        return false;
    char piece[16 * 1024];
    for (;;) {
        std::size_t count = 0;
        if (file.read(piece, sizeof piece, &count) != 0)
            return false;
        if (count == 0)
            return true;
        if (content.size() + count > max_size)
            return false;
        content.append(piece, count);
    }
}
