#include "child/plan_posix.h"

#include "child/child.h"
#include "error/error.h"
#include "message_names.h"
#include "platform/uninterrupted_posix.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <optional>
#include <unistd.h>

namespace {

// A path for after the change of the folder.
std::string from_here(const std::string& path, const qorChildProcessOptions& options) {
    if (options.folder == nullptr || path[0] == '/')
        return path;
    std::unique_ptr<char, decltype(&std::free)> here(getcwd(nullptr, 0), std::free);
    if (here == nullptr)
        return path;
    std::string whole = here.get();
    whole.append("/").append(path);
    return whole;
}

// PATH of the child's variables; an entry without '=' is none. Null: there is no such variable.
const char* search_path(const qorChildProcessOptions& options) {
    if (options.environment == nullptr)
        return getenv("PATH");
    for (const qorString& each : *options.environment)
        if (std::strncmp(each.Text(), "PATH=", 5) == 0)
            return each.Text() + 5;
    return nullptr;
}

std::vector<std::string> find_files(const qorChildProcessOptions& options) {
    const std::string name = qor::child::program_name(options);
    if (options.program != nullptr || name.find('/') != std::string::npos)
        return {from_here(name, options)};
    const char* const known = search_path(options);
    const std::string path = known != nullptr ? known : "/bin:/usr/bin";
    std::vector<std::string> files;
    for (std::size_t begin = 0; begin <= path.size();) {
        const std::size_t end = std::min(path.find(':', begin), path.size());
        std::string file = path.substr(begin, end - begin);
        file.append(file.empty() ? "./" : "/").append(name);
        files.push_back(from_here(file, options));
        begin = end + 1;
    }
    return files;
}

void add_texts(std::vector<char*>& to, const qorStringArray& from) {
    for (const qorString& each : from)
        to.push_back(const_cast<char*>(each.Text()));
}

// Says why a program was not executed.
void set_program_error(const std::vector<std::string>& files, const char* name, int code) {
    const bool is_missing = code == ENOENT || code == ENOTDIR;
    const bool is_there = std::any_of(files.begin(), files.end(),
                                      [](const std::string& each) { return access(each.c_str(), F_OK) == 0; });
    if (is_missing && !is_there)
        return qor::error::set(qorError_child_program_missing, {name});
    qorString reason;
    const auto known = is_missing        ? std::optional(qor::messages::framework::child_no_interpreter)
                       : code == ENOEXEC ? std::optional(qor::messages::framework::child_no_program)
                                         : std::nullopt;
    if (known.has_value() && qor::glue::qorString_LoadString(&reason, qor::messages::framework::catalog, *known))
        return qor::error::set(qorError_cannot_start_child, {name, reason.Text()});
    qor::error::set_with_reason(qorError_cannot_start_child, name, code);
}

} // namespace

void qor::child::prepare(const qorChildProcessOptions& options, start_plan& plan, std::vector<std::string>& files) {
    files = find_files(options);
    for (std::string& each : files)
        plan.files.push_back(each.data());
    add_texts(plan.arguments, *options.arguments);
    if (options.environment != nullptr)
        add_texts(plan.environment, *options.environment);
    else if (environ != nullptr)
        for (char** each = environ; *each != nullptr; ++each)
            plan.environment.push_back(*each);
    for (auto* const each : {&plan.files, &plan.arguments, &plan.environment})
        each->push_back(nullptr);
    plan.folder = options.folder;
    plan.sets_umask = options.umask != qorKeepUmask;
    plan.umask = options.umask;
    plan.own_group = options.whole_tree;
}

bool qor::child::open_stream(const qorChildStream& stream, int number, start_plan& plan, std::vector<int>& childs) {
    const bool is_input = number == STDIN_FILENO;
    const bool is_file = stream.kind == qorChildStreamKind::file;
    if (stream.kind == qorChildStreamKind::inherit) {
        // One that is closed stays closed.
        if (fcntl(number, F_GETFD) >= 0)
            plan.add(number, number);
        return true;
    }
    if (!is_file && stream.kind != qorChildStreamKind::null)
        return true; // the pipes come later, and then what leads to the output
    const char* const path = is_file ? stream.path : "/dev/null";
    int flags = O_CLOEXEC | O_NOCTTY | (is_input ? O_RDONLY : O_WRONLY);
    if (is_file && !is_input)
        flags |= O_CREAT | (stream.append ? O_APPEND : O_TRUNC);
    const int opened = platform::uninterrupted([&] { return open(path, flags, 0666); });
    if (opened < 0) {
        error::set_with_reason(qorError_cannot_open_file, path, errno);
        return false;
    }
    childs.push_back(opened);
    plan.add(opened, number);
    return true;
}

bool qor::child::add_handles(const qorChildProcessOptions& options, start_plan& plan) {
    for (uint32 i = 0; i < options.handle_count; ++i) {
        const qorChildHandle& each = options.handles[i];
        const int64 in_child = each.in_child < 0 ? each.own : each.in_child;
        const bool is_open = each.own >= 0 && each.own <= INT_MAX && fcntl(static_cast<int>(each.own), F_GETFD) >= 0;
        const auto is_same = [&](const auto& other) { return other.in_child == in_child; };
        if (!is_open || in_child <= STDERR_FILENO ||
            std::any_of(plan.descriptors.begin(), plan.descriptors.end(), is_same)) {
            error::set(is_open ? qorError_child_handle_number : qorError_child_handle,
                       {std::to_string(is_open ? in_child : each.own).c_str(), program_name(options)});
            return false;
        }
        plan.add(static_cast<int>(each.own), static_cast<int>(in_child));
    }
    return true;
}

void qor::child::set_start_error(const qorChildProcessOptions& options, const std::vector<std::string>& files,
                                 const start_result& failed) {
    const char* const name = program_name(options);
    const std::string reason = error::system_reason(failed.code);
    switch (failed.step) {
    case start_step::process:
    case start_step::group:
        return error::set(qorError_cannot_start_child, {name, reason.c_str()});
    case start_step::descriptors:
        return error::set(qorError_child_cannot_pass,
                          {std::to_string(failed.descriptor).c_str(), name, reason.c_str()});
    case start_step::folder:
        return error::set(qorError_child_folder, {name, options.folder, reason.c_str()});
    case start_step::program:
        return set_program_error(files, name, failed.code);
    }
}
