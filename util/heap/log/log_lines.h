// One line of a log, read in place: text in, fields out. What is to be said of a line is left to the caller.
// The grammars are in docs/heap-logs.md.
//
// Lines lie in the runs of IQORSimpleFileReader::ReadLines: behind every line stands its end, and behind the
// last one padding that may be read. So what looks at a line looks at 64 bytes at a time and does not ask
// where the run ends.
#pragma once

#include "qor/system/File.h"

#include <string_view>

namespace qor::heap::log_lines {

// What a line is. Lines without meaning, such as comments, are not worth a word.
enum class kind : uint8 { record, no_meaning, too_few_words, unknown_code };

// One record of an mtrace log. SIZE is the width that sizes are cut to: uint32 or uint64.
template <class SIZE>
struct mtrace_line {
    std::string_view caller;
    std::string_view code;
    uint64 address = 0;
    SIZE size = 0;
    bool is_alloc = false;
    bool is_code_known = false; // if not, the size decides what it is
    uint32 caller_id = 0;       // of text_ids

    // Whether a line begins like the lines of such a log, whether it is a record or not.
    static bool has_form(std::string_view line) noexcept { return line.starts_with('@') || line.starts_with("= "); }
};

// One record of an allocation log; what its kind does not carry is 0 or empty.
template <class SIZE>
struct memcheck_line {
    char code = '\0';
    uint64 address = 0;
    SIZE size = 0;
    uint8 bt = 0;
    int32 line = 0;
    std::string_view file;
    std::string_view type_name;
    uint32 text_id = 0; // of text_ids: of the type name, or of the file and what follows it

    static bool has_form(std::string_view line) noexcept {
        return !line.empty() && std::string_view("AFTE#").find(line[0]) != std::string_view::npos;
    }
};

// A line without white space at both ends. An unknown code is in out.code.
template <class SIZE>
kind parse(std::string_view line, mtrace_line<SIZE>& out);
template <class SIZE>
kind parse(std::string_view line, memcheck_line<SIZE>& out);

// Parses the record at the beginning of a run of lines if its line is written exactly as the C library or the framework
// writes it, with one blank between words, and moves `next` behind it. False: the line has another form, and parse() is
// to be used.
template <class SIZE>
bool parse_canonical(const char*& next, mtrace_line<SIZE>& out);
template <class SIZE>
bool parse_canonical(const char*& next, memcheck_line<SIZE>& out);

// What a batch keeps of a line: for an mtrace log in half a cache line, since it goes from one processor to another.
template <class LINE>
struct entry;

template <class SIZE>
struct entry<mtrace_line<SIZE>> {
    uint64 address = 0;
    SIZE size = 0;
    uint32 end = 0;       // behind the line, in the batch's text
    uint32 caller_at = 0; // in the text, too
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

// Makes entries of the lines of [next, end), of which `text` is the beginning or comes before; as many as `limit`.
// Lines without meaning have none. The number of entries; `next` is behind the last line looked at.
template <class LINE>
uint32 parse_lines(const char* text, const char*& next, const char* end, entry<LINE>* out, uint32 limit);

} // namespace qor::heap::log_lines
