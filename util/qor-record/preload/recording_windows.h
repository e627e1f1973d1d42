// The recording of this process, for the hooks. All of it takes no lock, allocates nothing and leaves the last error
// alone. No record is made within another one: run-times call their own functions directly, and not by their imports.
#pragma once

#include "process.h"

namespace qor::record {

// A new block, after the allocator has returned it. `caller` is where the hook returns to.
void record_allocation(record_kind kind, const void* block, std::size_t size, void* caller) noexcept;

// A block that is about to be released (record_kind::release or moved_from).
void record_release(record_kind kind, const void* block, void* caller) noexcept;

void record_module_gone(std::uint32_t module) noexcept;

// False: this process is not recorded, or not any more.
bool is_recording() noexcept;
void begin_recording() noexcept;

class wait_for_recorder {
public:
    // For a thousandth of a second. False: the recorder has ended, or has not moved for half a minute.
    bool pause() noexcept;

private:
    std::uint32_t m_heartbeat = this_process.shared->heartbeat.load(std::memory_order_relaxed);
    unsigned m_pauses = 0;
};

// ---- modules_windows.cpp

// As the system loads and unloads modules. Its own lock is held meanwhile, so there is one call at a time.
void module_came(const void* base, const wchar_t* path, unsigned length) noexcept;
void module_goes(const void* base) noexcept;

// Calls `tell` with the base of each module that is loaded.
void for_each_module(void (*tell)(const void* base) noexcept) noexcept;

// ---- imports_windows.cpp

// Puts the hooks before the functions that the module imports and, if it is a C run-time, exports.
void hook_module(const void* base, const wchar_t* name, unsigned length) noexcept;
void forget_runtime(const void* base) noexcept;

// As far as they are to be hooked.
void find_system_functions() noexcept;

} // namespace qor::record
