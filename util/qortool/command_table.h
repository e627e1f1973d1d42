// Functions for the tables of options, actions and commands of both programs. Each row begins with a name.
#pragma once

#include "qor/qor.h"

#include <cstring>

// Exit codes of the dispatch itself; every other code comes from an action.
#define QOR_EXIT_CODE(code, name, meaning) inline constexpr int exit_##name = code;
#include "exit_codes.def"
#undef QOR_EXIT_CODE

// Returns the first row with exactly this name; null if the table has no such row.
template <class ROW, std::size_t COUNT>
const ROW* find_row(const ROW (&table)[COUNT], const char* name) noexcept {
    for (const ROW& row : table)
        if (std::strcmp(row.name, name) == 0)
            return &row;
    return nullptr;
}

// Writes a line of help for each row that has a syntax text.
template <class ROW, std::size_t COUNT>
void write_help_lines(std::FILE* stream, const char* catalog, const ROW (&table)[COUNT]) noexcept {
    for (const ROW& row : table)
        if (row.syntax != 0)
            qorWriteHelpLine(stream, catalog, row.syntax, row.description);
}
