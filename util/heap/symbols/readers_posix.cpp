#include "readers.h"

#include "reader.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace qor::heap {

namespace {

using clock = std::chrono::steady_clock;

// The messages of a reading process. Of one process they come in order.
enum class message : uint32 {
    begins,   // with a module, or goes on with it after a fetch
    fetching, // followed by two numbers and the servers
    answer,
};

struct message_head {
    message kind;
    uint32 module;
    uint64 size;
};

constexpr uint64 longest_message = uint64{1} << 30;

// ---- the reading process

void send(int pipe, const void* data, std::size_t size) {
    const char* next = static_cast<const char*>(data);
    while (size != 0) {
        const ssize_t count = write(pipe, next, size);
        if (count < 0 && errno != EINTR)
            _exit(1);
        if (count > 0) {
            next += count;
            size -= static_cast<std::size_t>(count);
        }
    }
}

void send(int pipe, message kind, std::size_t module, std::string_view content = {}) {
    const message_head head{kind, static_cast<uint32>(module), content.size()};
    send(pipe, &head, sizeof head);
    send(pipe, content.data(), content.size());
}

uint64 address_space() {
    unsigned long pages = 0;
    if (FILE* const file = std::fopen("/proc/self/statm", "re")) {
        if (std::fscanf(file, "%lu", &pages) != 1)
            pages = 0;
        std::fclose(file);
    }
    return uint64{pages} * static_cast<uint64>(sysconf(_SC_PAGESIZE));
}

void limit_process(pid_t parent, uint64 memory) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent)
        _exit(1);
    // The parent decides what a signal of the terminal means. A fault ends this process and no more.
    for (const int signal : {SIGINT, SIGQUIT, SIGHUP})
        std::signal(signal, SIG_IGN);
    for (const int signal : {SIGSEGV, SIGBUS, SIGABRT, SIGFPE, SIGILL, SIGTERM})
        std::signal(signal, SIG_DFL);
    const rlimit no_core{0, 0};
    setrlimit(RLIMIT_CORE, &no_core);
    if (const uint64 used = address_space(); used != 0) {
        const rlimit bytes{used + memory, used + memory};
        setrlimit(RLIMIT_AS, &bytes);
    }
    // An assertion of a library is of no use to the reader of the table.
    if (const int nothing = open("/dev/null", O_RDWR | O_CLOEXEC); nothing >= 0) {
        dup2(nothing, STDOUT_FILENO);
        dup2(nothing, STDERR_FILENO);
    }
}

constexpr int no_memory = 3; // its exit code

// Reads one module after the other, as long as there are some that no process has taken.
[[noreturn]] void read_modules(int pipe, const std::vector<module_request>& modules, const symbol_options& options,
                               std::atomic<uint32>& next) {
    try {
        for (;;) {
            const uint32 module = next.fetch_add(1);
            if (module >= modules.size())
                _exit(0);
            send(pipe, message::begins, module);
            const auto tell = [&](std::string_view servers, uint64 done, uint64 all) {
                const uint64 numbers[2] = {done, all};
                std::string content(reinterpret_cast<const char*>(numbers), sizeof numbers);
                send(pipe, message::fetching, module, content += servers);
                return true;
            };
            const module_answer answer = read_symbols(modules[module], options, tell);
            send(pipe, message::answer, module, encoded(answer));
        }
    } catch (const std::bad_alloc&) {
        _exit(no_memory);
    }
}

// ---- the process that shows the symbols

class process {
public:
    process(const std::vector<module_request>& modules, const symbol_options& options, std::atomic<uint32>& next) {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0)
            return;
        const pid_t parent = getpid();
        m_id = fork();
        if (m_id == 0) {
            close(ends[0]);
            limit_process(parent, options.memory);
            read_modules(ends[1], modules, options, next);
        }
        close(ends[1]);
        m_pipe = ends[0];
    }
    process(process&& other) noexcept
        : m_id(std::exchange(other.m_id, -1)), m_pipe(std::exchange(other.m_pipe, -1)),
          m_bytes(std::move(other.m_bytes)), m_module(other.m_module), m_deadline(other.m_deadline) {}
    process& operator=(process&&) = delete;
    ~process() { end(true); }

    bool is_running() const { return m_id > 0; }
    int pipe() const { return m_pipe; }

    // False: the process has ended.
    bool receive() {
        char piece[64 * 1024];
        ssize_t count;
        do
            count = read(m_pipe, piece, sizeof piece);
        while (count < 0 && errno == EINTR);
        if (count > 0)
            m_bytes.append(piece, static_cast<std::size_t>(count));
        return count > 0;
    }

    // Takes the next whole message. False: there is no whole one.
    bool take(message_head& head, std::string& content, bool& is_nonsense) {
        if (m_bytes.size() - m_taken >= sizeof head) {
            std::memcpy(&head, m_bytes.data() + m_taken, sizeof head);
            is_nonsense = head.size > longest_message;
            if (!is_nonsense && m_bytes.size() - m_taken - sizeof head >= head.size) {
                content.assign(m_bytes, m_taken + sizeof head, head.size);
                m_taken += sizeof head + head.size;
                return true;
            }
        }
        m_bytes.erase(0, std::exchange(m_taken, 0));
        return false;
    }

    // The reason why the process ended.
    std::string end(bool by_force) {
        if (m_pipe >= 0)
            close(std::exchange(m_pipe, -1));
        if (m_id <= 0)
            return {};
        if (by_force)
            kill(m_id, SIGKILL);
        int status = 0;
        pid_t ended;
        do
            ended = waitpid(m_id, &status, 0);
        while (ended < 0 && errno == EINTR);
        m_id = -1;
        if (WIFSIGNALED(status))
            return strsignal(WTERMSIG(status));
        return WEXITSTATUS(status) == no_memory ? std::strerror(ENOMEM)
                                                : "exit code " + std::to_string(WEXITSTATUS(status));
    }

    static constexpr uint32 none = ~uint32{0};
    uint32 module() const { return m_module; }
    void set_module(uint32 module) { m_module = module; }
    clock::time_point deadline() const { return m_deadline; }
    void set_deadline(clock::time_point at) { m_deadline = at; }

private:
    pid_t m_id = -1;
    int m_pipe = -1;
    std::string m_bytes;
    std::size_t m_taken = 0;
    uint32 m_module = none;
    clock::time_point m_deadline = clock::time_point::max();
};

// What all reading processes share.
class shared_number {
public:
    shared_number() {
        void* const page = mmap(nullptr, sizeof *m_number, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (page == MAP_FAILED)
            throw std::bad_alloc();
        m_number = new (page) std::atomic<uint32>(0);
    }
    shared_number(const shared_number&) = delete;
    shared_number& operator=(const shared_number&) = delete;
    ~shared_number() { munmap(m_number, sizeof *m_number); }

    std::atomic<uint32>& operator*() const { return *m_number; }

private:
    std::atomic<uint32>* m_number;
};

class all_readers {
public:
    all_readers(const std::vector<module_request>& modules, const symbol_options& options,
                const symbols::progress& tell, const std::function<void(std::size_t, module_answer&&)>& done)
        : m_modules(modules), m_options(options), m_tell(tell), m_done(done), m_is_done(modules.size()) {}

    void run() {
        std::string reason;
        symbol_status rest = symbol_status::no_reader;
        if (load_symbol_reader(reason)) {
            start();
            while (!m_processes.empty() && step()) {
            }
            if (m_is_ended)
                rest = symbol_status::interrupted;
            m_processes.clear();
            reason = m_reason;
        }
        for (uint32 i = 0; i < m_modules.size(); ++i)
            if (!m_is_done[i])
                fail(i, rest, reason);
    }

private:
    void start() {
        uint32 count = m_options.processes;
        if (count == 0)
            count = std::clamp(std::thread::hardware_concurrency(), 1u, 4u);
        count = std::min(count, all());
        while (m_processes.size() < count && *m_next < m_modules.size() && m_started < m_modules.size() + count) {
            process next(m_modules, m_options, *m_next);
            if (!next.is_running()) {
                m_reason = std::strerror(errno);
                return;
            }
            ++m_started;
            m_processes.push_back(std::move(next));
        }
    }

    // False: the caller has ended the search.
    bool step() {
        std::vector<pollfd> waits;
        waits.reserve(m_processes.size());
        for (const process& one : m_processes)
            waits.push_back({one.pipe(), POLLIN, 0});
        const clock::time_point before = clock::now();
        poll(waits.data(), waits.size(), 100);
        const clock::time_point now = clock::now();
        std::vector<process> kept;
        for (std::size_t i = 0; i < m_processes.size(); ++i) {
            process& one = m_processes[i];
            // This process was stopped for a while, and so were the others.
            if (now - before > std::chrono::seconds(1) && one.module() != process::none)
                one.set_deadline(one.deadline() + (now - before));
            if (serve(one, waits[i].revents != 0, now))
                kept.push_back(std::move(one));
        }
        m_processes = std::move(kept);
        if (!m_is_ended)
            start();
        if (m_tell && !m_tell(nullptr))
            m_is_ended = true;
        return !m_is_ended;
    }

    // False: the process has ended.
    bool serve(process& one, bool has_data, clock::time_point now) {
        if (has_data) {
            const bool is_alive = one.receive();
            message_head head;
            std::string content;
            bool is_nonsense = false;
            while (!is_nonsense && !m_is_ended && one.take(head, content, is_nonsense))
                is_nonsense = !handle(one, head, content, now);
            if (is_alive && !is_nonsense)
                return true;
            const std::string reason = one.end(is_nonsense);
            if (one.module() != process::none)
                fail(one.module(), symbol_status::damaged, reason);
            return false;
        }
        if (one.module() != process::none && now >= one.deadline()) {
            one.end(true);
            fail(one.module(), symbol_status::too_slow, {});
            return false;
        }
        return true;
    }

    // False: no reader sends this.
    bool handle(process& one, const message_head& head, const std::string& content, clock::time_point now) {
        if (head.module >= m_modules.size() || m_is_done[head.module])
            return false;
        if (head.kind == message::begins) {
            one.set_module(head.module);
            one.set_deadline(now + m_options.file_time);
            return true;
        }
        if (head.module != one.module())
            return false;
        if (head.kind == message::fetching) {
            uint64 numbers[2];
            if (content.size() < sizeof numbers)
                return false;
            std::memcpy(numbers, content.data(), sizeof numbers);
            if (numbers[1] == 0)
                one.set_deadline(now + m_options.fetch_time + m_options.file_time);
            tell({symbol_progress::what::fetching, m_count, all(), m_modules[head.module].path,
                  std::string_view(content).substr(sizeof numbers), numbers[0], numbers[1]});
            return true;
        }
        module_answer answer;
        if (head.kind != message::answer || !decode(content, m_modules[head.module].addresses.size(), answer))
            return false;
        one.set_module(process::none);
        finish(head.module, std::move(answer));
        return true;
    }

    void fail(uint32 module, symbol_status status, const std::string& reason) {
        module_answer answer;
        answer.clear(m_modules[module].addresses.size());
        answer.about.status = status;
        answer.about.reason = reason;
        finish(module, std::move(answer));
    }

    void finish(uint32 module, module_answer&& answer) {
        m_is_done[module] = true;
        ++m_count;
        m_done(module, std::move(answer));
        tell({symbol_progress::what::module_done, m_count, all(), m_modules[module].path, {}});
    }

    void tell(const symbol_progress& of) {
        if (m_tell && !m_is_ended && !m_tell(&of))
            m_is_ended = true;
    }

    uint32 all() const { return static_cast<uint32>(m_modules.size()); }

    const std::vector<module_request>& m_modules;
    const symbol_options& m_options;
    const symbols::progress& m_tell;
    const std::function<void(std::size_t, module_answer&&)>& m_done;
    std::vector<bool> m_is_done;
    uint32 m_count = 0;        // of the modules that are done
    std::size_t m_started = 0; // processes
    bool m_is_ended = false;
    std::string m_reason; // why there is no process
    shared_number m_next;
    std::vector<process> m_processes;
};

} // namespace

void read_all_symbols(const std::vector<module_request>& modules, const symbol_options& options,
                      const symbols::progress& tell, const std::function<void(std::size_t, module_answer&&)>& done) {
    if (!modules.empty())
        all_readers(modules, options, tell, done).run();
}

} // namespace qor::heap
