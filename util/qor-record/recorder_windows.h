// The recorder on Windows: one process that starts the program, reads what the recorded processes leave in their
// arenas, and writes their logs. It ends after the last of them.
#pragma once

#include "control_windows.h"
#include "log_names.h"
#include "options.h"
#include "process_log.h"

#include <list>
#include <map>
#include <memory>

namespace qor::record {

struct recorded_process {
    std::shared_ptr<arena_host> host; // null: it is over
    std::unique_ptr<process_log> log;
    std::string program;
    void* handle = nullptr;
    recorded_process* holder = nullptr; // the one that has started it and will let it run; null: it may run
    bool is_first = false;
    bool has_begun = false;  // the library of the hooks is at work in it
    bool has_failed = false; // its log has ended before it, and that was said
    bool is_over() const noexcept { return host == nullptr; }
};

class recorder {
public:
    recorder(const options& chosen, const log_names& names, control_listener& control, std::string hooks)
        : m_options(chosen), m_names(names), m_control(control), m_hooks(std::move(hooks)),
          m_is_stopped(chosen.is_stopped) {}

    // Starts the program of this path and records it with all that it starts. The exit code.
    int run(const std::string& path);

private:
    bool start(const std::string& path);
    bool begin(void* process, std::int32_t number, const std::string& program, std::int32_t parent);
    int create_files(recorded_process& of);
    void follow(recorded_process& parent);
    void take(std::int32_t number, recorded_process& parent, bool runs_at_once);
    static void let_run(recorded_process& of);
    void answer_control();
    bool work();
    void end(recorded_process& of);
    void flush();
    void tell_failure(recorded_process& of);
    void summarise();
    void summarise(const recorded_process& of);

    const options& m_options;
    const log_names& m_names;
    control_listener& m_control;
    std::string m_hooks; // the library's path
    bool m_is_stopped;
    void* m_first_thread = nullptr;
    std::list<recorded_process> m_processes;
    std::map<std::string, std::vector<std::int32_t>> m_unrecorded; // programs, and their processes
    unsigned long m_exit_code = 0;

    // Of all processes, added up.
    std::uint32_t m_runtimes = 0;
    std::uint32_t m_hooked_modules = 0;
    bool m_program_has_imports = false;
    bool m_stacks_were_full = false;
    std::uint64_t m_unnamed = 0;
};

} // namespace qor::record
