// Where a thread that helps another one runs. A system may place both on one processor, when one wakes the other or a
// third program was there for a moment, and leave them there for tens of milliseconds: longer than most logs take.
#pragma once

namespace qor::heap {

// The processor that the calling thread is on, or -1.
int current_processor() noexcept;

// The calling thread's way to keep off a processor. Every other one that it may use is open to it, and with none it
// stays where it is. Where the system does not tell processors apart, nothing happens.
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
