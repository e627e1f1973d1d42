// The recording process: it reads what the recorded processes leave in their arenas, and writes their logs.
#pragma once

#include "log_names.h"
#include "options.h"
#include "process_log.h"
#include "program_file.h"

#include <list>
#include <memory>

namespace qor::record {

class recorder {
public:
    recorder(const options& chosen, const log_names& names) : m_options(chosen), m_names(names) {}

    // The arena of the first program, and the socket. False, after a message: the program must not be started.
    bool prepare(const std::string& program, const program_facts& facts);

    // What the first program needs in its environment: the value of `record_variable`.
    const std::string& offer() const noexcept { return m_offer; }
    int first_descriptor() const noexcept { return m_first_descriptor; }
    arena& first_arena() const noexcept { return m_arenas.front()->shared(); }

    // In the recording process, until the first program and those that it has started are over. `front` is the connection
    // to the process that starts the program: it is sent a word when the program may start; it sends the number of the
    // program, and how that has ended; it is sent a word when all is said.
    void run(int front);

private:
    // A process while one program runs in it.
    struct process {
        std::shared_ptr<arena_host> host;
        std::unique_ptr<process_log> log;
        std::string program;
        int handle = -1;          // of the process; readable when it has ended
        bool is_first = false;
        bool is_forked = false;
        bool has_files = false;
        bool is_over = false;
        bool is_dropped = false;
        bool was_replaced = false; // by another program
        bool has_forked = false;
        std::uint64_t seen_since = 0;
        process* parent = nullptr;
    };

    std::shared_ptr<arena_host> make_arena(bool is_first, const program_facts& facts);
    bool make_socket();
    void answer_requests();
    void replace_spare();
    void add_executed(std::shared_ptr<arena_host> host, std::int32_t number);
    void find_sessions();
    void add_session(const std::shared_ptr<arena_host>& host, unsigned index, std::int32_t number);
    bool create_files(process& of);
    bool drain(process& of);
    void end(process& of);
    bool has_ended(const process& of) const;
    void hear_front();
    void summarise();
    process* find(std::int32_t number);

    options m_options;
    const log_names& m_names;
    std::string m_offer;
    std::string m_program;
    std::string m_token;
    int m_first_descriptor = -1;
    int m_socket = -1;
    int m_front = -1;
    std::int32_t m_first_process = 0;
    int m_exit_code = -1; // of the first program; -1: it has not ended
    std::vector<std::shared_ptr<arena_host>> m_arenas;
    std::shared_ptr<arena_host> m_spare;
    std::list<process> m_processes;
};

} // namespace qor::record
