// All timers of the process, and the thread that waits for them. One mutex guards everything; no call to a client is
// made with it held.
//
// A heap holds the timers that wait, and a map finds them. A timer stays in the map until its last call has returned
// and its target is released, so that everybody who cancels it can wait for that.
#include "error/error.h"
#include "platform/end_of_process.h"
#include "platform/no_cancellation.h"
#include "platform/own_process.h"
#include "qor/qor.h"
#include "timer/sleeper.h"

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

namespace {

using qor::timer::never;

constexpr std::size_t not_waiting = ~std::size_t{0};

struct timers;

struct record final : public IQORTimerEvent, public std::enable_shared_from_this<record> {
    timers* owner = nullptr;
    qorTimerId id = 0;
    uint64 due = 0;
    uint64 period = 0;
    qorTimerRoutine routine = nullptr;
    void* context = nullptr;
    zetSmartPointer<IQORTimerTarget> target;
    zetSmartPointer<IQORTimerQueue> queue;

    // Under the lock of `owner`.
    std::size_t place = not_waiting; // in the heap
    bool is_cancelled = false;
    bool is_running = false; // its function, or the release of its target
    unsigned long runner = 0;
    bool is_posted = false; // its event is with the queue and has not run
    uint64 missed = 0;
    qorTimerTick tick;

    // The event in the queue is the timer itself, which has room for one: nothing needs memory when it is due.
    std::atomic<uint32> event_references{0};
    std::shared_ptr<record> event_self; // while there are such references

    void AddRef() noexcept override { ++event_references; }
    void Release() noexcept override;
    int QueryInterface(const char* name, void** out) noexcept override {
        for (const char* const known : {"IQORTimerEvent", "IQORInterface"})
            if (std::strcmp(name, known) == 0) {
                *out = static_cast<IQORTimerEvent*>(this);
                AddRef();
                return 1;
            }
        return 0;
    }
    void Run() noexcept override;
    qorTimerId GetTimer() noexcept override { return id; }

    void call() noexcept {
        if (routine != nullptr)
            routine(context, tick);
        else
            target->TimerDue(tick);
    }
};

using record_pointer = std::shared_ptr<record>;

// A place in the heap has a copy of what is compared, so that a comparison need not look at the timer.
struct entry {
    uint64 due;
    qorTimerId id;
    record* which;

    // Timers for the same time are called in the order in which they were set up.
    bool is_before(const entry& other) const noexcept { return due != other.due ? due < other.due : id < other.id; }
};

struct timers {
    std::mutex lock;
    qor::timer::sleeper sleeper;
    std::condition_variable has_run; // a timer's function has returned
    std::vector<entry> heap;         // by the time at which they are due
    std::unordered_map<qorTimerId, record_pointer> all;
    qorTimerId last_id = 0;
    bool has_thread = false;
    uint64 sleeps_until = 0; // of the thread; 0: it is awake
    timers* of_parent = nullptr;

    void put(std::size_t place, const entry& what) noexcept {
        heap[place] = what;
        what.which->place = place;
    }
    void sift_up(std::size_t place) noexcept {
        const entry moved = heap[place];
        for (; place != 0 && moved.is_before(heap[(place - 1) / 2]); place = (place - 1) / 2)
            put(place, heap[(place - 1) / 2]);
        put(place, moved);
    }
    void sift_down(std::size_t place) noexcept {
        const entry moved = heap[place];
        for (std::size_t child; (child = 2 * place + 1) < heap.size(); place = child) {
            if (child + 1 < heap.size() && heap[child + 1].is_before(heap[child]))
                ++child;
            if (moved.is_before(heap[child]))
                break;
            put(place, heap[child]);
        }
        put(place, moved);
    }
    void add(record* which) {
        heap.push_back({which->due, which->id, which});
        sift_up(heap.size() - 1);
    }
    void remove(record* which) noexcept {
        const std::size_t place = std::exchange(which->place, not_waiting);
        if (place == not_waiting)
            return;
        const entry last = heap.back();
        heap.pop_back();
        if (last.which == which)
            return;
        put(place, last);
        sift_up(place);
        sift_down(last.which->place);
    }
};

// Never destroyed: the thread lives as long as the process. A forked child gets new ones; its parent's stay as they
// are, because threads that do not exist in the child may have been changing them.
std::atomic<timers*> s_timers{nullptr};

// What a thread that forks holds meanwhile: another one may set up the first timer between the two routines.
thread_local timers* s_held = nullptr;

void before_fork() noexcept {
    s_held = s_timers.load();
    if (s_held != nullptr)
        s_held->lock.lock();
}
void in_parent() noexcept {
    if (s_held != nullptr)
        s_held->lock.unlock();
}
void in_child() noexcept {
    timers* const old = s_timers.load();
    if (old == nullptr)
        return;
    auto* const fresh = new timers;
    fresh->last_id = old->last_id;
    fresh->of_parent = old;
    s_timers.store(fresh);
}

[[maybe_unused]] const bool s_watches_forks = (qor::platform::watch_forks(before_fork, in_parent, in_child), true);

// Takes no lock, which a fork could leave behind.
timers& the_timers() {
    timers* known = s_timers.load();
    if (known != nullptr)
        return *known;
    auto made = std::make_unique<timers>();
    if (s_timers.compare_exchange_strong(known, made.get()))
        known = made.release();
    return *known;
}

// Ends a run that has begun with `is_running`. A timer that is over releases its target, as part of the run, and is
// forgotten.
void end_run(timers& own, const record_pointer& which, std::unique_lock<std::mutex>& hold) noexcept {
    if (which->is_cancelled || which->period == 0) {
        which->is_cancelled = true;
        hold.unlock();
        which->target.Empty();
        which->queue.Empty();
        hold.lock();
        own.all.erase(which->id);
    }
    which->is_running = false;
    own.has_run.notify_all();
}

// The function may fork. The child then has other timers, and this run is none of its.
bool is_current(const timers& own) noexcept { return s_timers.load() == &own; }

// Calls the function of a timer; its runner is the calling thread. Returns false in a child that it has forked.
bool run(timers& own, const record_pointer& which, std::unique_lock<std::mutex>& hold) noexcept {
    which->is_running = true;
    which->runner = qor::platform::thread_id();
    hold.unlock();
    which->call();
    if (!is_current(own))
        return false;
    hold.lock();
    end_run(own, which, hold);
    return true;
}

// The time behind `due` that comes next, and how many have passed.
uint64 next_time(uint64 due, uint64 period, uint64 now, uint64& passed) noexcept {
    passed = (now - due) / period;
    const uint64 last = due + passed * period;
    return period > never - last ? never : last + period;
}

// Serves the first timer of the heap, which is due. Returns false in a child that its function has forked.
bool serve_first(timers& own, uint64 now, std::unique_lock<std::mutex>& hold) {
    const record_pointer which = own.all.find(own.heap.front().id)->second;
    own.remove(which.get());
    uint64 passed = 0;
    const uint64 due = which->due;
    if (which->period != 0) {
        which->due = next_time(due, which->period, now, passed);
        own.add(which.get());
    }
    if (which->event_self != nullptr || which->is_running) {
        which->missed += passed + 1;
        return true;
    }
    which->tick = {which->id, due + passed * which->period, std::exchange(which->missed, 0) + passed};
    if (which->queue.IsEmpty())
        return run(own, which, hold);
    which->is_posted = true;
    which->event_references = 1;
    which->event_self = which;
    const zetSmartPointer<IQORTimerQueue> queue = which->queue;
    hold.unlock();
    queue->Post(which.get());
    if (!is_current(own))
        return false;
    which->Release();
    hold.lock();
    return true;
}

void serve() noexcept {
    timers& own = *s_timers.load();
    std::unique_lock hold(own.lock);
    for (;;) {
        const uint64 due = own.heap.empty() ? never : own.heap.front().due;
        const uint64 now = qor::glue::qorGetTickCounter();
        if (due <= now && due != never) {
            if (!serve_first(own, now, hold)) {
                (void)hold.release();
                return;
            }
            continue;
        }
        own.sleeps_until = due;
        own.sleeper.sleep(hold, due);
        own.sleeps_until = 0;
    }
}

bool set_up(const char* operation, const record_pointer& made, const qorTimerTimes& times, qorTimerId* out) {
    timers& own = the_timers();
    const std::lock_guard hold(own.lock);
    if (!own.has_thread) {
        if (const int code = qor::platform::start_thread(serve)) {
            qor::error::set_with_reason(qorError_cannot_start_timers, operation, code);
            return false;
        }
        own.has_thread = true;
    }
    const uint64 now = qor::glue::qorGetTickCounter();
    made->owner = &own;
    made->id = ++own.last_id;
    made->due = times.delay > never - now ? never : now + times.delay;
    made->period = times.period;
    own.all.emplace(made->id, made);
    own.add(made.get());
    if (out != nullptr)
        *out = made->id;
    if (made->due < own.sleeps_until)
        own.sleeper.wake();
    return true;
}

template <class INTERFACE>
void hold_reference(zetSmartPointer<INTERFACE>& in, INTERFACE* object) noexcept {
    object->AddRef();
    in.AttachNew(object);
}

bool refuse(const char* operation, const char* argument) noexcept {
    qor::error::set(qorError_invalid_argument, {operation, argument});
    return false;
}

} // namespace

void record::Run() noexcept {
    if (!is_current(*owner))
        return;
    const record_pointer self = weak_from_this().lock();
    std::unique_lock hold(owner->lock);
    if (is_cancelled || is_running || !is_posted || event_self == nullptr)
        return;
    // From now on the event is used up; a timer that runs is not posted again.
    is_posted = false;
    run(*owner, self, hold);
}

void record::Release() noexcept {
    if (--event_references != 0)
        return;
    // The event was dropped, or has run. In a forked child, the lock may be that of a thread which is not there.
    if (!is_current(*owner))
        return;
    record_pointer self; // the last reference goes behind the lock
    std::unique_lock hold(owner->lock);
    self = std::move(event_self);
    if (!std::exchange(is_posted, false) || is_cancelled)
        return;
    missed += tick.missed + 1; // it was dropped
    if (period == 0) {
        is_running = true;
        runner = qor::platform::thread_id();
        end_run(*owner, self, hold);
    }
}

bool qor::glue::qorSetupTimer(qorTimerRoutine routine, void* context, const qorTimerTimes& times,
                              qorTimerId* out) noexcept {
    if (routine == nullptr)
        return refuse("qorSetupTimer", "routine");
    const auto made = std::make_shared<record>();
    made->routine = routine;
    made->context = context;
    return set_up("qorSetupTimer", made, times, out);
}

bool qor::glue::qorSetupTimer_object(IQORTimerTarget* target, const qorTimerTimes& times, qorTimerId* out) noexcept {
    if (target == nullptr)
        return refuse("qorSetupTimer", "target");
    const auto made = std::make_shared<record>();
    hold_reference(made->target, target);
    return set_up("qorSetupTimer", made, times, out);
}

bool qor::glue::qorSetupTimerDispatch(IQORTimerQueue* queue, IQORTimerTarget* target, const qorTimerTimes& times,
                                      qorTimerId* out) noexcept {
    if (queue == nullptr)
        return refuse("qorSetupTimerDispatch", "queue");
    if (target == nullptr)
        return refuse("qorSetupTimerDispatch", "target");
    const auto made = std::make_shared<record>();
    hold_reference(made->target, target);
    hold_reference(made->queue, queue);
    return set_up("qorSetupTimerDispatch", made, times, out);
}

bool qor::glue::qorCancelTimer(qorTimerId id) noexcept {
    timers* const own = s_timers.load();
    if (own == nullptr)
        return false;
    record_pointer which;
    std::unique_lock hold(own->lock);
    const auto found = own->all.find(id);
    if (found == own->all.end())
        return false;
    which = found->second;
    const bool is_first = !std::exchange(which->is_cancelled, true) && (which->period != 0 || !which->is_running);
    own->remove(which.get());
    const platform::no_cancellation keep;
    if (!which->is_running) {
        // The release is a run of its own, so that others who cancel the timer wait for it, too.
        which->is_running = true;
        which->runner = platform::thread_id();
        end_run(*own, which, hold);
    } else if (which->runner != platform::thread_id() && !platform::other_threads_are_gone()) {
        own->has_run.wait(hold, [&] { return !which->is_running; });
    }
    hold.unlock();
    return is_first;
}
