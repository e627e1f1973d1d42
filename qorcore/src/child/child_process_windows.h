// Inside the Windows half of child processes: the object, which the start fills in.
#pragma once

#include "child/child.h"
#include "child/pipe_end_windows.h"
#include "qor/system/template/Object.h"

#include <string>
#include <windows.h>

namespace qor::child {

class child_process final : public qor::object<IQORChildProcess> {
public:
    child_process(std::string program, bool whole_tree);
    ~child_process() override;

    uint64 GetId() noexcept override;
    bool IsRunning() noexcept override;
    bool Wait(uint32 ms, qorChildEnd& end) noexcept override;
    bool End(qorChildEnding how) noexcept override;
    bool WriteInput(const void* bytes, uint64 length, uint32 ms, uint64* written) noexcept override;
    void CloseInput() noexcept override;
    bool Read(qorChildOutput from, void* buffer, uint64 length, uint32 ms, uint64& count) noexcept override;
    bool Communicate(qorTextView input, IQORDataSink* output, IQORDataSink* errors, uint32 ms,
                     qorChildEnd& end) noexcept override;

    // Filled in by the start.
    HANDLE m_process = nullptr;
    HANDLE m_job = nullptr; // of a whole tree
    DWORD m_id = 0;
    pipe_end m_input;
    pipe_end m_output;
    pipe_end m_errors;

private:
    bool fail(int code) const noexcept;
    bool has_pipe(const pipe_end& pipe, const char* operation) const noexcept;
    bool get_end(qorChildEnd& end) noexcept;
    bool feed(qorTextView input, uint64& written) noexcept;
    bool collect(pipe_end& pipe, IQORDataSink* sink, const deadline& until) noexcept;

    const std::string m_program;
    const bool m_whole_tree;
};

} // namespace qor::child
