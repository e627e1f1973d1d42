#include "debuginfod_posix.h"

#include "compression/shared_library.h"

#include <cstdlib>
#include <cstring>
#include <elfutils/debuginfod.h>
#include <memory>

namespace qor::heap {

namespace {

struct debuginfod_functions {
    decltype(::debuginfod_begin)* begin;
    decltype(::debuginfod_end)* end;
    decltype(::debuginfod_find_debuginfo)* find_debuginfo;
    decltype(::debuginfod_get_url)* get_url;
    decltype(::debuginfod_set_user_data)* set_user_data;
    decltype(::debuginfod_get_user_data)* get_user_data;
    decltype(::debuginfod_set_progressfn)* set_progress;
};

debuginfod_functions functions;

template <class FUNCTION>
bool find(void* library, FUNCTION*& out, const char* name) {
    out = reinterpret_cast<FUNCTION*>(compression::find_function(library, name));
    return out != nullptr;
}

bool load(std::string& reason) {
    static bool is_loaded = false;
    if (is_loaded)
        return true;
    void* const library = compression::load_library("libdebuginfod.so.1", reason);
    if (library == nullptr)
        return false;
    is_loaded = find(library, functions.begin, "debuginfod_begin") && find(library, functions.end, "debuginfod_end") &&
                find(library, functions.find_debuginfo, "debuginfod_find_debuginfo") &&
                find(library, functions.get_url, "debuginfod_get_url") &&
                find(library, functions.set_user_data, "debuginfod_set_user_data") &&
                find(library, functions.get_user_data, "debuginfod_get_user_data") &&
                find(library, functions.set_progress, "debuginfod_set_progressfn");
    if (!is_loaded)
        reason = "libdebuginfod is too old";
    return is_loaded;
}

using clock = std::chrono::steady_clock;

struct transfer {
    const fetching& tell;
    std::string servers;
    clock::time_point end;
};

// Anything but 0 ends the transfer.
int progress(debuginfod_client* client, long done, long all) {
    const transfer& of = *static_cast<const transfer*>(functions.get_user_data(client));
    const auto bytes = [](long number) { return number > 0 ? static_cast<uint64>(number) : 0; };
    return clock::now() >= of.end || !of.tell(of.servers, bytes(done), bytes(all));
}

} // namespace

std::string debuginfod::servers() {
    const char* const names = std::getenv("DEBUGINFOD_URLS");
    return names != nullptr ? names : "";
}

debuginfod::result debuginfod::fetch(const std::string& build_id, std::chrono::seconds limit, const fetching& tell) {
    // After a server that does not answer, or none that can be reached, this process asks no more: each file would take
    // as long.
    static std::string given_up;
    result found;
    found.reason = given_up;
    if (!given_up.empty() || !load(found.reason))
        return found;
    const std::unique_ptr<debuginfod_client, decltype(functions.end)> client(functions.begin(), functions.end);
    if (client == nullptr) {
        found.reason = std::strerror(ENOMEM);
        return found;
    }
    transfer state{tell, servers(), clock::now() + limit};
    tell(state.servers, 0, 0);
    functions.set_user_data(client.get(), &state);
    functions.set_progress(client.get(), progress);
    char* path = nullptr;
    const int descriptor =
        functions.find_debuginfo(client.get(), reinterpret_cast<const unsigned char*>(build_id.data()),
                                 static_cast<int>(build_id.size()), &path);
    if (descriptor < 0) {
        const int code = clock::now() >= state.end ? ETIMEDOUT : -descriptor;
        found.reason = std::strerror(code);
        if (code != ENOENT)
            given_up = found.reason;
        return found;
    }
    found.descriptor = descriptor;
    found.path = path != nullptr ? path : "";
    std::free(path);
    const char* const url = functions.get_url(client.get());
    found.server = url != nullptr ? url : state.servers;
    return found;
}

} // namespace qor::heap
