// The scripts of inject_slots. Each uses a family of operations, prints what it gets, and ends the process with 1 if an
// operation fails.
#pragma once

#include "qor/qor.h"

#include <cstdio>
#include <cstdlib>

// Ends a script whose operation failed.
[[noreturn]] inline void fail(const char* operation) {
    std::fprintf(stderr, "%s: ", operation);
    fputerr(stderr, true);
    std::_Exit(1);
}

#define MUST(operation) (operation) ? void() : fail(#operation)

inline void say(const char* text) { std::printf("%s\n", text); }
inline void say(const qorStringArray& texts) {
    for (uint32 i = 0; i < texts.GetCount(); ++i)
        say(texts[i]);
}

inline constexpr char long_text[] = "a text that is long enough to need a block of its own, whatever holds it";

// Prints the error of an operation that must have failed for this reason.
inline void say_failure(uint32 expected) {
    qorString text;
    if (qorGetLastError(text) != expected)
        fail("another failure");
    say(text);
}

void use_memory();
void use_vector();
void use_string();
void use_array();
void use_messages();
void use_errors();
void use_files();
void use_trace();
void use_process();
void use_host();
void use_network();
void use_time();
void use_digest();
void use_folders();
void use_containers();
void use_config();
void use_store();
void use_threads();
void use_timers();
void use_children();
void use_log();
void use_services();
void use_serial();
void use_components();
void use_listeners();
void use_ipc();
