#include "ipc/descriptor_posix.h"

#include "ipc/channel.h"
#include "platform/own_process.h"

#include <atomic>
#include <unistd.h>

namespace {

// Constant from the start and never destroyed. Nothing that is done under the lock allocates.
constinit std::mutex s_lock;
constinit qor::ipc::descriptor* s_first = nullptr;
constinit std::atomic<unsigned> s_generation{0};

void before_fork() noexcept { s_lock.lock(); }
void in_parent() noexcept { s_lock.unlock(); }
void in_child() noexcept {
    ++s_generation;
    qor::ipc::descriptor::close_all();
    s_lock.unlock();
}

[[maybe_unused]] const bool s_watches_forks = (qor::platform::watch_forks(before_fork, in_parent, in_child), true);

} // namespace

unsigned qor::ipc::generation() noexcept { return s_generation.load(std::memory_order_relaxed); }

std::mutex& qor::ipc::descriptor::fork_lock() noexcept { return s_lock; }

bool qor::ipc::descriptor::adopt(int number) noexcept {
    if (number < 0)
        return false;
    m_number = number;
    m_before = nullptr;
    m_behind = s_first;
    if (s_first != nullptr)
        s_first->m_before = this;
    s_first = this;
    return true;
}

void qor::ipc::descriptor::close() noexcept {
    const std::lock_guard hold(s_lock);
    if (m_number < 0)
        return;
    (m_before != nullptr ? m_before->m_behind : s_first) = m_behind;
    if (m_behind != nullptr)
        m_behind->m_before = m_before;
    ::close(m_number);
    m_number = -1;
}

void qor::ipc::descriptor::close_all() noexcept {
    for (descriptor* each = s_first; each != nullptr; each = each->m_behind) {
        ::close(each->m_number);
        each->m_number = -1;
    }
    s_first = nullptr;
}
