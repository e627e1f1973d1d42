#include "thread/system_thread.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

namespace {

struct beginning {
    void (*run)(void* context) noexcept;
    void* context;
};

void* thread_main(void* given) {
    const std::unique_ptr<beginning> own(static_cast<beginning*>(given));
    const beginning work = *own;
    // A cancellation would unwind through the function, which may have destructors that call the table.
    int before;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before);
    work.run(work.context);
    return nullptr;
}

// Returns 0 if the size cannot be had.
std::size_t whole_pages(uint64 size) noexcept {
    const auto page = static_cast<uint64>(sysconf(_SC_PAGESIZE));
    const auto least = static_cast<uint64>(sysconf(_SC_THREAD_STACK_MIN));
    if (size > SSIZE_MAX - page)
        return 0;
    return static_cast<std::size_t>((std::max(size, least) + page - 1) / page * page);
}

static_assert(sizeof(pthread_t) <= sizeof(qor::thread::handle));

// The longest name that the kernel keeps, with its terminator.
constexpr std::size_t name_room = 16;

} // namespace

int qor::thread::start(uint64 stack_size, void (*run)(void* context) noexcept, void* context, handle& out) noexcept {
    pthread_attr_t attributes;
    if (const int failed = pthread_attr_init(&attributes))
        return failed;
    int failed = 0;
    if (stack_size != 0) {
        const std::size_t size = whole_pages(stack_size);
        failed = size != 0 ? pthread_attr_setstacksize(&attributes, size) : EINVAL;
    }
    pthread_t made{};
    if (failed == 0) {
        auto begin = std::make_unique<beginning>(beginning{run, context});
        failed = pthread_create(&made, &attributes, thread_main, begin.get());
        if (failed == 0)
            (void)begin.release();
    }
    pthread_attr_destroy(&attributes);
    out = static_cast<handle>(made);
    return failed;
}

void qor::thread::join(handle which) noexcept { pthread_join(static_cast<pthread_t>(which), nullptr); }
void qor::thread::detach(handle which) noexcept { pthread_detach(static_cast<pthread_t>(which)); }

void qor::thread::set_own_name(const char* name) noexcept {
    char cut[name_room];
    std::size_t length = std::min(std::strlen(name), sizeof cut - 1);
    // A character of several bytes is not cut in the middle.
    if (name[length] != '\0')
        while (length != 0 && (static_cast<unsigned char>(name[length]) & 0xc0) == 0x80)
            --length;
    std::memcpy(cut, name, length);
    cut[length] = '\0';
    pthread_setname_np(pthread_self(), cut);
}

int qor::thread::set_own_priority(qorThreadPriority priority) noexcept {
    int step = 0;
    switch (priority) {
    case qorThreadPriority::normal:
        return 0;
    case qorThreadPriority::low:
        step = 5;
        break;
    case qorThreadPriority::lowest:
        step = 10;
        break;
    case qorThreadPriority::high:
        step = -5;
        break;
    case qorThreadPriority::highest:
        step = -10;
        break;
    }
    // On Linux, the nice value is one of each thread, and 0 stands for the calling one. -1 is a value, too.
    errno = 0;
    const int now = getpriority(PRIO_PROCESS, 0);
    if (errno != 0)
        return errno;
    return setpriority(PRIO_PROCESS, 0, std::clamp(now + step, -20, 19)) == 0 ? 0 : errno;
}
