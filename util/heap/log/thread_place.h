// The processor on which a helper thread runs. A system may place it on the processor of the thread that it helps,
// because one wakes the other or because a third program ran for a moment. It may leave both there for tens of
// milliseconds, longer than most logs take.
#pragma once

namespace qor::heap {

// Returns the processor that runs the calling thread, or -1.
int current_processor() noexcept;

// Keeps the calling thread off one processor. The thread may use every other processor that the process may use; if
// there is no other, it stays where it is. Does nothing on systems that do not distinguish processors.
class thread_place {
public:
    void keep_off(int processor) noexcept {
        if (processor != m_kept_off)
            move_off(processor);
    }

private:
    void move_off(int processor) noexcept;

    int m_kept_off = -1;
};

} // namespace qor::heap
