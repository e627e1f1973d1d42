// Heap logs in the plainest words: the grammars of both logs and the replay, with nothing clever in them, for
// fuzz targets to compare the analyser with.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace plain_log {

// The lines of a text without white space at both ends; what follows the last line end is a line unless it is
// empty.
std::vector<std::string> lines(const std::string& text);

enum class kind { record, no_meaning, too_few_words, unknown_code };

struct mtrace_line {
    std::string caller, code;
    std::uint64_t address = 0;
    std::uint32_t size = 0;
    std::uint64_t wide_size = 0; // not cut to 32 bits
    bool is_alloc = false;
    bool is_code_known = false;
};

struct memcheck_line {
    char code = 0;
    std::uint64_t address = 0;
    std::uint32_t size = 0;
    std::uint64_t wide_size = 0; // not cut to 32 bits
    std::uint8_t bt = 0;
    std::string file;
    std::int32_t line = 0;
    std::string type_name;
};

kind parse(const std::string& line, mtrace_line& out);
kind parse(const std::string& line, memcheck_line& out);

struct output {
    std::string out, err;
    // Whether lines of the log came and not one of them has the form of such a log.
    bool is_foreign_mtrace = false, is_foreign_memcheck = false;
    bool operator==(const output&) const = default;
};

// What a replay writes. Without an mtrace log the other is replayed alone.
output replay(const std::optional<std::string>& mtrace, const std::optional<std::string>& memcheck);

} // namespace plain_log
