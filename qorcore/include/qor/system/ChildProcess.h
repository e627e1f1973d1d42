// Child processes. docs/child-processes.md has examples.
//
// A program is started with a vector of arguments, never by a shell. It gets the three standard streams and the
// descriptors or handles that are named, and no others. Nothing of the own process is changed for the start.
//
// Linux: the program starts with no signal blocked, and with SIGPIPE and SIGCHLD at their default. Other signals that
// the own process ignores stay ignored.
#pragma once

#include "qor/system/Error.h"
#include "qor/system/Interface.h"
#include "qor/system/Memory.h"
#include "qor/system/Stream.h"
#include "qor/system/StringArray.h"
#include "qor/system/TextView.h"
#include "qor/system/template/Object.h"
#include "qor/system/template/SmartPointer.h"
#include "qor/system/template/TextSink.h"

#include <initializer_list>
#include <string>

// Where a standard stream of the child leads.
enum class qorChildStreamKind : uint32 {
    inherit, // where that of the own process leads
    null,    // it is empty, or takes and forgets everything
    file,    // a file: the input reads it; an output creates or empties it, or appends to it
    pipe,    // to the operations of IQORChildProcess
    output,  // only the error stream: where the output leads
};

// A standard stream of the child.
struct qorChildStream {
    qorChildStreamKind kind = qorChildStreamKind::inherit; // where it leads
    const char* path = nullptr;                            // of the file
    bool append = false;                                   // to the file
};

// A descriptor, or on Windows an inheritable object's handle, that the child gets.
struct qorChildHandle {
    // The own process's. It stays open, and need not be inheritable on Linux.
    int64 own = -1;
    // Its number in the child, 3 or above; -1: the same number. On Windows it is always the same.
    int32 in_child = -1;
};

// The child keeps the own process's mask for the rights of new files.
inline constexpr uint32 qorKeepUmask = 0xffffffff;

// What is started, and how.
struct qorChildProcessOptions {
    // The arguments; the first one is the program's name. A name without a separator is searched for along PATH, that
    // of `environment` if there is one. Any other is a path, relative to the own process's folder.
    const qorStringArray* arguments = nullptr;
    // The file of the program, where it is not to be found by the first argument.
    const char* program = nullptr;
    // All of the child's variables, each as "NAME=VALUE"; null: those of the own process.
    const qorStringArray* environment = nullptr;
    // The child's folder; null: that of the own process.
    const char* folder = nullptr;
    // The child's mask for the rights of new files; Linux only.
    uint32 umask = qorKeepUmask;
    // The standard streams.
    qorChildStream input{};
    qorChildStream output{};
    qorChildStream errors{};
    // What else is inherited.
    const qorChildHandle* handles = nullptr;
    uint32 handle_count = 0;
    // The child and what it starts end together: with the child's own end, with End, and with the last Release, what
    // is still running is killed. Linux: a process group of its own, so a terminal's Ctrl-C does not reach it; what
    // leaves the group escapes. Windows: a job.
    bool whole_tree = false;
    // qorExecuteChildProcess: kills the child after so many milliseconds; 0 for no limit.
    uint32 time_limit = 0;
};

// How a child has ended.
struct qorChildEnd {
    uint32 code = 0;        // the exit code; 0 after a signal
    uint32 signal = 0;      // the number of the signal that has ended it; 0: none. Windows: always 0
    uint64 user_time = 0;   // of the processor, in 100 ns; with the children that it has waited for
    uint64 kernel_time = 0; // the same inside the system
    uint64 peak_memory = 0; // in bytes, 0: unknown; Linux: the largest of it and the children that it has waited for

    // Whether it has returned 0.
    bool IsSuccess() const noexcept { return code == 0 && signal == 0; }
};

// How a child is told to end.
enum class qorChildEnding : uint32 {
    ask,  // Linux: SIGTERM. Windows has no such way for every program: qorError_not_supported
    kill, // at once
};

// The two streams of a child that can be read.
enum class qorChildOutput : uint32 {
    output = 1,
    errors = 2,
};

// A child that was started. The last Release leaves it running, unless `whole_tree` was set; the framework then takes
// care of its end. Any thread may call any operation; of WriteInput and of Read of each stream one at a time. Waits:
// `ms` as in qorGate::Wait, where 0 means no limit; a wait whose time is over fails with qorError_timed_out. No wait is
// a cancellation point. In a forked child of the own process, all operations fail, and pipes are closed.
class IQORChildProcess : public IQORInterface {
public:
    // The system's number of the process.
    virtual uint64 GetId() noexcept = 0;
    // Whether it has not ended yet.
    virtual bool IsRunning() noexcept = 0;

    // Waits for the child's end. Once it has ended, each call gets the same. Fails if other code of the own process has
    // taken its exit code (a handler of SIGCHLD that waits for all children, or SIG_IGN) and the kernel cannot tell it
    // any more (qorError_child_end_unknown).
    [[nodiscard]] virtual bool Wait(uint32 ms, qorChildEnd& end) noexcept = 0;

    // Tells the child, or its whole tree, to end, and does not wait for that. A child that has ended is a success.
    virtual bool End(qorChildEnding how) noexcept = 0;

    // Writes all bytes to the child's input. Fails if the child has closed it, or does not read in time; `written`, if
    // not null, is how many bytes went into the pipe.
    [[nodiscard]] virtual bool WriteInput(const void* bytes, uint64 length, uint32 ms, uint64* written) noexcept = 0;
    // Closes the pipe: the child's input ends there.
    virtual void CloseInput() noexcept = 0;

    // Reads what there is, at least one byte and at most `length`. At the end of the stream `count` is 0.
    [[nodiscard]] virtual bool Read(qorChildOutput from, void* buffer, uint64 length, uint32 ms,
                                    uint64& count) noexcept = 0;

    // Writes `input` to the child and closes its input, reads both streams to their ends into the sinks, and waits for
    // the child's end: all at the same time, so neither side waits for the other. Streams that are not pipes are left
    // out, and so are null sinks, whose bytes are dropped. A child that does not read its input is no failure.
    // When the time is over, the child is killed, which is a failure; `end` and the sinks have what there was.
    // A process that the child has left behind may hold the streams open; this waits for their ends, too.
    [[nodiscard]] virtual bool Communicate(qorTextView input, IQORDataSink* output, IQORDataSink* errors, uint32 ms,
                                           qorChildEnd& end) noexcept = 0;

    // Waits without a limit. Fails like Wait.
    [[nodiscard]] bool Wait(qorChildEnd& end) noexcept { return Wait(0, end); }

protected:
    ~IQORChildProcess() = default;
};

// What a child has written, and how it has ended.
struct qorChildResult {
    std::string output; // any bytes
    std::string errors; // the same
    qorChildEnd end;    // of the child
};

// Starts a program. Returns false and leaves *out unchanged if it cannot be started; nothing of it has run then. An
// invalid program, a folder or a file that is missing, and descriptors that are not open are errors of this call. On
// Windows, batch files and the command interpreter are refused, because they take their arguments apart by rules of
// their own.
[[nodiscard]] inline bool qorCreateChildProcess(const qorChildProcessOptions& options,
                                                IQORChildProcess** out) noexcept {
    return qor::glue::qorCreateChildProcess(options, out);
}

// Starts a program, feeds and collects its pipes like IQORChildProcess::Communicate within the options' time limit, and
// waits for its end. An exit code other than 0 is no failure. Returns false if the program cannot be started, was
// killed because its time was over (qorError_child_timed_out), or a sink has failed.
[[nodiscard]] inline bool qorExecuteChildProcess(const qorChildProcessOptions& options, qorTextView input,
                                                 IQORDataSink* output, IQORDataSink* errors,
                                                 qorChildEnd& end) noexcept {
    return qor::glue::qorExecuteChildProcess(options, input, output, errors, end);
}

// The same, into memory: an output and an error stream that the options leave as `inherit` are collected, and the input
// is `input`. Throws std::bad_alloc.
[[nodiscard]] inline bool qorExecuteChildProcess(qorChildProcessOptions options, qorTextView input,
                                                 qorChildResult& result) {
    for (qorChildStream* const each : {&options.input, &options.output, &options.errors})
        if (each->kind == qorChildStreamKind::inherit)
            each->kind = qorChildStreamKind::pipe;
    result = {};
    zetSmartPointer<IQORDataSink> output;
    zetSmartPointer<IQORDataSink> errors;
    output.AttachNew(QOR_NEW qor::glue::text_sink(result.output));
    errors.AttachNew(QOR_NEW qor::glue::text_sink(result.errors));
    return qorExecuteChildProcess(options, input, *output, *errors, result.end);
}
// The same without an input: `qorExecuteChildProcess({"git", "status"}, result)`.
[[nodiscard]] inline bool qorExecuteChildProcess(std::initializer_list<const char*> arguments, qorChildResult& result) {
    qorStringArray words;
    for (const char* const each : arguments)
        words.Append(each);
    return qorExecuteChildProcess({.arguments = &words}, "", result);
}
