// The watch: one thread of the framework looks at all watched configurations several times a second. It asks for the
// status of each file only, and reads what is new once that has not changed for one round. So it works on every file
// system, and does not see a file while it is written.
#include "config/config.h"
#include "error/error.h"
#include "platform/end_of_process.h"
#include "platform/file_info.h"
#include "platform/own_process.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>

struct qor::config::watch::state {
    std::vector<std::string> files;
    zetSmartPointer<IQORConfigWatcher> watcher;
    std::mutex looking;      // protects what follows
    contents known;          // what the client knows, or has been told of
    std::string status;      // of the files, when they were last looked at
    bool is_examined = true; // since the status changed
};

namespace {

using qor::config::contents;
using state = qor::config::watch::state;

constexpr std::chrono::milliseconds period(200);

// All watched configurations, and the thread. Never destroyed, because the thread lives as long as the process.
struct watchman {
    std::mutex lock;
    std::condition_variable changed;
    std::vector<std::shared_ptr<state>> watched;
    std::shared_ptr<state> told; // whose client is being called
    unsigned long thread = 0;    // that runs; 0: none
};

watchman& the_watchman() {
    static watchman& only = *new watchman;
    return only;
}

void add_status(const std::string& path, std::string& out) {
    qorFileInfo info;
    const int code = qor::platform::file_info(path.c_str(), true, info);
    for (const uint64 each : {static_cast<uint64>(code), info.size, info.modified, info.created})
        out += std::to_string(each) + ' ';
    out += path + '\n';
}

// A text that differs when a file may have changed.
std::string status_of(const std::vector<std::string>& files) {
    std::string out;
    for (const std::string& file : files) {
        add_status(file, out);
        const std::string folder = qor::config::drop_in_folder(file);
        zetSmartPointer<IQORFolderContents> drop_ins;
        std::vector<std::string> names;
        if (qor::glue::qorDirectoryExists(folder.c_str()) &&
            qor::glue::qorGetFolderContents(folder.c_str(), drop_ins.Out()))
            for (const qorFolderEntry& each : drop_ins->Entries())
                names.emplace_back(each.Name());
        std::sort(names.begin(), names.end());
        for (const std::string& name : names)
            add_status(folder + '/' + name, out);
    }
    return out;
}

bool is_valid(const contents& all) {
    return std::all_of(all.begin(), all.end(), [](const qor::config::file_text& each) {
        zetSmartPointer<IQORConfigDocument> tree;
        return qor::config::parse(each, tree);
    });
}

// Whether the client has to be told.
bool has_news(state& of) {
    const std::lock_guard hold(of.looking);
    std::string status = status_of(of.files);
    if (status != of.status) {
        of.status = std::move(status);
        of.is_examined = false;
        return false;
    }
    if (of.is_examined)
        return false;
    contents now;
    if (!qor::config::read_files(of.files, now))
        return false;
    of.is_examined = true;
    std::erase_if(now, [](const auto& each) { return each.text.empty(); }); // like a file that does not exist
    if (now == of.known || !is_valid(now))
        return false;
    of.known = std::move(now);
    return true;
}

void watch_all() noexcept {
    watchman& own = the_watchman();
    std::unique_lock hold(own.lock);
    own.thread = qor::platform::thread_id();
    for (;;) {
        if (own.watched.empty())
            own.changed.wait(hold);
        else
            own.changed.wait_for(hold, period);
        auto all = own.watched;
        for (const std::shared_ptr<state>& each : all) {
            hold.unlock();
            const bool is_new = has_news(*each);
            hold.lock();
            if (!is_new || std::find(own.watched.begin(), own.watched.end(), each) == own.watched.end())
                continue;
            own.told = each;
            hold.unlock();
            each->watcher->ConfigChanged();
            hold.lock();
            own.told = nullptr;
            own.changed.notify_all();
        }
        // The last reference to a watcher may be one of these.
        hold.unlock();
        all.clear();
        hold.lock();
    }
}

// A forked child has no such thread, so it has no watches either.
void before_fork() noexcept { the_watchman().lock.lock(); }
void in_parent() noexcept { the_watchman().lock.unlock(); }
void in_child() noexcept {
    watchman& own = the_watchman();
    // The states stay: the thread that is missing here may have held their locks.
    new std::vector(std::move(own.watched));
    own.watched.clear();
    if (own.told != nullptr)
        new std::shared_ptr(std::move(own.told));
    own.told = nullptr;
    own.thread = 0;
    new (&own.changed) std::condition_variable;
    own.lock.unlock();
}

// Starts the thread if it does not run. Returns the system's error code.
int start_thread(watchman& own) {
    static bool is_prepared = false;
    if (own.thread != 0)
        return 0;
    if (!is_prepared)
        qor::platform::watch_forks(before_fork, in_parent, in_child);
    is_prepared = true;
    const int failed = qor::platform::start_thread(watch_all);
    if (failed == 0)
        own.thread = ~0ul; // until it knows its own number
    return failed;
}

} // namespace

bool qor::config::watch::start(std::vector<std::string> files, contents known, IQORConfigWatcher* watcher) {
    auto made = std::make_shared<state>();
    made->status = status_of(files);
    made->is_examined = false; // what has changed since the client read the files
    made->files = std::move(files);
    watcher->AddRef();
    made->watcher.AttachNew(watcher);
    std::erase_if(known, [](const auto& each) { return each.text.empty(); });
    made->known = std::move(known);

    watchman& own = the_watchman();
    const std::lock_guard hold(own.lock);
    if (const int code = start_thread(own)) {
        error::set_with_reason(qorError_system, "Watch", code);
        return false;
    }
    own.watched.push_back(made);
    own.changed.notify_all();
    m_state = std::move(made);
    return true;
}

void qor::config::watch::stop() noexcept {
    if (m_state == nullptr)
        return;
    watchman& own = the_watchman();
    std::unique_lock hold(own.lock);
    std::erase(own.watched, m_state);
    if (own.thread != platform::thread_id())
        (void)platform::wait_for_others(own.changed, hold, [&] { return own.told != m_state; });
    hold.unlock();
    m_state = nullptr;
}

std::unique_lock<std::mutex> qor::config::watch::pause() {
    if (m_state == nullptr)
        return {};
    watchman& own = the_watchman();
    std::unique_lock hold(own.lock);
    // In a forked child nobody looks, but the lock may be that of a thread which is not there.
    const bool is_watched = std::find(own.watched.begin(), own.watched.end(), m_state) != own.watched.end();
    hold.unlock();
    return is_watched ? std::unique_lock(m_state->looking) : std::unique_lock<std::mutex>();
}

void qor::config::watch::set_known(contents known) {
    if (m_state == nullptr)
        return;
    std::erase_if(known, [](const auto& each) { return each.text.empty(); });
    m_state->known = std::move(known);
}
