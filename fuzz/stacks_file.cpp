// Files of stacks: the reader ends, keeps its limits, and gives the nodes that a plain reader gives, up to where the
// file ends or is damaged.
#include "heap/log/stacks_log.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <random>
#include <string>
#include <vector>

namespace {

using qor::heap::stacks_log;

void require(bool holds) {
    if (!holds)
        std::abort();
}

// The stacks up to the first entry that is cut off or cannot be one; a byte at a time, with nothing kept.
class plain_reader {
public:
    explicit plain_reader(std::string_view data) : m_data(data) {}

    std::vector<uint32> stacks() {
        std::vector<uint32> found;
        while (const auto kind = number()) {
            if (*kind >= 16) {
                if (*kind - 16 > m_nodes)
                    break;
                found.push_back(static_cast<uint32>(*kind - 16));
            } else if (!skip(*kind)) {
                break;
            }
        }
        return found;
    }

private:
    std::optional<uint64> number() {
        uint64 value = 0;
        for (unsigned i = 0; m_at < m_data.size() && i < 10; ++i) {
            const auto byte = static_cast<unsigned char>(m_data[m_at++]);
            if (i == 9 && byte > 1)
                return {};
            value += uint64{byte & 0x7fU} << 7 * i;
            if ((byte & 0x80) == 0)
                return value;
        }
        return {};
    }

    bool text() {
        const auto size = number();
        if (!size || *size > stacks_log::longest_text || *size > m_data.size() - m_at)
            return false;
        m_at += *size;
        return true;
    }

    bool numbers(int count) {
        while (count-- > 0)
            if (!number())
                return false;
        return true;
    }

    bool skip(uint64 kind) {
        switch (kind) {
        case 1:
            return numbers(4) && text() && text();
        case 2:
            ++m_modules;
            return numbers(3) && text() && text();
        case 3:
        case 4: {
            const auto module = number();
            return module && *module != 0 && *module <= m_modules;
        }
        case 5: {
            const auto parent = number(), module = number(), address = number();
            if (!address || !parent || *parent > m_nodes || !module || *module > m_modules)
                return false;
            m_depths.push_back(m_depths[*parent] + 1);
            ++m_nodes;
            return m_depths.back() <= stacks_log::most_depth;
        }
        case 6:
        case 8:
        case 10:
            return numbers(1);
        case 7:
        case 9:
            return numbers(1) && text();
        default:
            return false;
        }
    }

    std::string_view m_data;
    std::size_t m_at = 0;
    uint64 m_nodes = 0, m_modules = 0;
    std::vector<uint32> m_depths = std::vector<uint32>(1);
};

std::string path() {
    static const std::string place =
        (std::filesystem::temp_directory_path() / ("qor.fuzz." + std::to_string(std::random_device()()))).string();
    static const bool is_registered = std::atexit([] { std::remove(place.c_str()); }) == 0;
    require(is_registered);
    return place;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string content = "QORSTK\x01\n" + std::string(reinterpret_cast<const char*>(data), size);
    std::ofstream(path(), std::ios::binary | std::ios::trunc) << content;
    stacks_log log;
    require(log.open(path().c_str()));
    std::vector<uint32> found;
    for (uint32 node = log.next(); log.how_it_ended() == stacks_log::ending::not_reached; node = log.next())
        found.push_back(node);
    require(found == plain_reader(std::string_view(content).substr(8)).stacks());
    require(log.stack_count() == found.size() && log.next() == 0);
    for (uint32 i = 1; i < log.nodes().size(); ++i) {
        const stacks_log::node& each = log.nodes()[i];
        require(each.parent < i && each.module < log.modules().size() && each.depth <= stacks_log::most_depth &&
                each.depth == log.nodes()[each.parent].depth + 1);
    }
    return 0;
}
