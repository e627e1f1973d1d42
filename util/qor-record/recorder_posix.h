// The recording process: it reads what the recorded processes leave in their arenas, and writes their logs.
#pragma once

#include "executed_programs.h"
#include "log_names.h"
#include "options.h"
#include "process_log.h"
#include "program_file.h"

#include <list>
#include <memory>

namespace qor::record {

// A process while one program runs in it.
struct recorded_process {
    std::shared_ptr<arena_host> host; // null: it is over, and so are all others of its arena
    std::unique_ptr<process_log> log;
    std::string program;
    int handle = -1;
    std::int32_t inner_number = 0; // in its own namespace, if it is over
    std::uint64_t known_since = 0;
    bool is_elsewhere = false; // in a namespace with other numbers
    bool was_gone = false;     // it had ended before it was found
    bool is_first = false;
    bool is_forked = false;
    bool has_forked = false;
    bool has_files = false;
    bool has_failed = false; // its log has ended before it, and that was said
    bool is_over = false;
    bool is_dropped = false;   // it has left nothing
    bool was_replaced = false; // by another program
    recorded_process* parent = nullptr;
    process_log::place inherited;
};

class recorder {
public:
    recorder(const options& chosen, const log_names& names)
        : m_options(chosen), m_names(names),
          m_executed([this](std::int32_t process, std::uint64_t since) { return has_arena(process, since); }) {}

    // The arena of the first program, and the sockets. False, after a message: the program must not be started.
    bool prepare(const std::string& program, const program_facts& facts);

    int first_descriptor() const noexcept { return m_first_descriptor; }
    arena& first_arena() const noexcept { return m_arenas.front()->shared(); }

    // In the recording process, until the first program and those that it has started are over. `front` is the
    // connection to the process that starts the program. It is sent the value of `record_variable` when the program may
    // start; it sends the number of the program and then its exit code; it is sent a byte when all is said: 0, or 1 if
    // nothing was recorded.
    void run(int front);

private:
    std::shared_ptr<arena_host> make_arena(const std::vector<code_range>& allocation_code);
    void publish_spare();
    void answer_requests();
    void answer_control();
    void replace_spare();
    void stop(bool is_stopped);
    void add_executed(const std::shared_ptr<arena_host>& host, std::int32_t number);
    void find_forked();
    void find_executed();
    bool has_arena(std::int32_t process, std::uint64_t since) const;
    void drop_arenas();
    void add_up(const arena& of);
    static std::int32_t inner_number(const recorded_process& of);
    bool is_elsewhere(const arena_host& host, const session& of) const;
    recorded_process& add(const std::shared_ptr<arena_host>& host, unsigned index, std::int32_t number);
    int create_files(recorded_process& of);
    void begin_files(recorded_process& of);
    bool is_decided(const recorded_process& of) const;
    bool drain(recorded_process& of);
    void end(recorded_process& of);
    void end_replaced();
    void tell_failure(recorded_process& of);
    bool has_ended(const recorded_process& of) const;
    bool work();
    void flush();
    void hear_front();
    void dismiss_front();
    recorded_process* find(std::int32_t number);

    // summary.cpp
    void summarise();
    void summarise(recorded_process& of);

    options m_options;
    const log_names& m_names;
    std::string m_program;
    std::string m_token;
    std::string m_socket_name;
    int m_first_descriptor = -1;
    int m_socket = -1;
    int m_control_socket = -1;
    int m_front = -1;
    std::int32_t m_first_process = 0;
    int m_exit_code = -1; // the first program's; -1: it has not ended
    bool m_is_stopped = false;
    bool m_has_own_malloc = false;
    std::vector<std::shared_ptr<arena_host>> m_arenas;
    std::shared_ptr<arena_host> m_spare;
    std::list<recorded_process> m_processes;
    executed_programs m_executed;
    std::uint64_t m_last_look = 0; // at the programs that run in the processes
    // Of arenas that nobody needs any more.
    std::uint64_t m_unrecorded_children = 0;
    std::uint64_t m_unnamed_executions = 0;
    bool m_stacks_were_full = false;
};

} // namespace qor::record
