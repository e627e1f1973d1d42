// Forks under the address sanitizer. Its allocator keeps in the child what other threads held of its locks, and a
// thread holds them above all while it begins. So each fork of a test program waits first until all other threads
// sleep.
#if defined(__SANITIZE_ADDRESS__)
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <string>
#include <unistd.h>

namespace {

constexpr int most_tries = 2000; // of a millisecond; threads of some tests never sleep

// The state stands behind the name, which is in brackets and may have brackets itself.
bool sleeps(const char* thread) {
    const std::string path = std::string("/proc/self/task/").append(thread).append("/stat");
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    char text[512];
    const ssize_t size = file >= 0 ? read(file, text, sizeof text - 1) : 0;
    if (file >= 0)
        close(file);
    text[size > 0 ? size : 0] = '\0';
    const char* const name_end = std::strrchr(text, ')');
    return name_end == nullptr || name_end[1] == '\0' || std::strchr("SZX", name_end[2]) != nullptr; // or it has ended
}

bool others_sleep() {
    DIR* const threads = opendir("/proc/self/task");
    if (threads == nullptr)
        return true;
    const std::string self = std::to_string(gettid());
    bool all_sleep = true;
    while (const dirent* const each = readdir(threads))
        if (each->d_name[0] != '.' && self != each->d_name)
            all_sleep = sleeps(each->d_name) && all_sleep;
    closedir(threads);
    return all_sleep;
}

void wait_for_others() {
    for (int i = 0; i < most_tries && !others_sleep(); ++i)
        usleep(1000);
}

[[maybe_unused]] const int registered = pthread_atfork(wait_for_others, nullptr, nullptr);

} // namespace
#endif
