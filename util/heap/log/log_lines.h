// Parses one line of a log in place: text in, fields out. The caller decides on warnings. The grammars are in
// docs/heap-logs.md.
//
// Lines lie in the runs of IQORSimpleFileReader::ReadLines: every line is followed by its end, and the last one by
// padding that may be read. So the code here may read 64 bytes at a time and does not check for the end of the run.
#pragma once

#include "qor/system/File.h"

#include <string_view>

namespace qor::heap::log_lines {

// The kind of a line. Lines without meaning, such as comments, cause no warning.
enum class kind : uint8 { record, no_meaning, too_few_words, unknown_code };

// One record of an mtrace log. SIZE is the width that sizes are cut to: uint32 or uint64.
template <class SIZE>
struct mtrace_line {
    std::string_view caller;
    std::string_view code;
    uint64 address = 0;
    SIZE size = 0;
    bool is_alloc = false;
    bool is_code_known = false; // if false, the size decides between allocation and release
    uint32 caller_id = 0;       // of text_ids

    // Returns true if the line begins like the lines of such a log, even if it is not a record.
    static bool has_form(std::string_view line) noexcept { return line.starts_with('@') || line.starts_with("= "); }
};

// One record of an allocation log; fields that its code does not have are 0 or empty.
template <class SIZE>
struct memcheck_line {
    char code = '\0';
    uint64 address = 0;
    SIZE size = 0;
    uint8 bt = 0;
    int32 line = 0;
    std::string_view file;
    std::string_view type_name;
    uint32 text_id = 0; // of text_ids: of the type name, or of the file and the text after it

    static bool has_form(std::string_view line) noexcept {
        return !line.empty() && std::string_view("AFTE#").find(line[0]) != std::string_view::npos;
    }
};

// Parses a line without white space at both ends. An unknown code is stored in out.code.
template <class SIZE>
kind parse(std::string_view line, mtrace_line<SIZE>& out);
template <class SIZE>
kind parse(std::string_view line, memcheck_line<SIZE>& out);

// Parses the record at the beginning of a run of lines if the line is written exactly as the C library or the framework
// writes it, with one blank between words, and moves `next` behind it. Returns false if the line has another form and
// needs parse().
template <class SIZE>
bool parse_canonical(const char*& next, mtrace_line<SIZE>& out);
template <class SIZE>
bool parse_canonical(const char*& next, memcheck_line<SIZE>& out);

// The part of a line that a batch keeps. For an mtrace log it fits in half a cache line, because it moves from one
// processor to another.
template <class LINE>
struct entry;

template <class SIZE>
struct entry<mtrace_line<SIZE>> {
    uint64 address = 0;
    SIZE size = 0;
    uint32 end = 0;       // offset behind the line, in the batch's text
    uint32 caller_at = 0; // offset in the batch's text
    uint32 caller_size = 0;
    uint32 caller_id = 0; // of text_ids, for an allocation
    log_lines::kind kind = kind::record;
    bool is_alloc = false;
    bool is_code_known = false;
};
static_assert(sizeof(entry<mtrace_line<uint32>>) == 32);

template <class SIZE>
struct entry<memcheck_line<SIZE>> : memcheck_line<SIZE> {
    log_lines::kind kind = kind::record;
    uint32 end = 0;
};

// Makes entries of the lines of [next, end), at most `limit`. Offsets count from `text`, which is at or before `next`.
// Lines without meaning get no entry. Returns the number of entries; `next` is then behind the last line that was
// parsed.
template <class LINE>
uint32 parse_lines(const char* text, const char*& next, const char* end, entry<LINE>* out, uint32 limit);

} // namespace qor::heap::log_lines
