// The entry of the library. The program's list of imports begins with it, so it is initialised before all other
// libraries but those of the system that it needs itself.
#include "image_windows.h"
#include "recording_windows.h"

#include "shared/injection_windows.h"

#include <winternl.h>

namespace qor::record {

namespace {

// The system's own structures for notifications.
struct module_notice {
    ULONG flags;
    const UNICODE_STRING* path;
    const UNICODE_STRING* name;
    void* base;
    ULONG size;
};
constexpr ULONG was_loaded = 1;

} // namespace

} // namespace qor::record

extern "C" __declspec(dllimport) BOOLEAN NTAPI RtlDllShutdownInProgress();
extern "C" __declspec(dllimport) NTSTATUS NTAPI
    LdrRegisterDllNotification(ULONG, void(NTAPI*)(ULONG, const qor::record::module_notice*, void*), void*, void**);

namespace qor::record {

namespace {

void NTAPI hear(ULONG reason, const module_notice* about, void*) {
    const DWORD before = GetLastError();
    if (reason == was_loaded)
        module_came(about->base, about->path->Buffer, about->path->Length / 2U);
    else if (!RtlDllShutdownInProgress()) // at the end of the process all of them go
        module_goes(about->base);
    SetLastError(before);
}

// The system calls with its lock of the loader held.
void add_first_modules() noexcept {
    const PEB* process; // the thread's block has its address at 0x60
    __asm__("movq %%gs:0x60, %0" : "=r"(process));
    LIST_ENTRY* const head = &process->Ldr->InMemoryOrderModuleList;
    for (LIST_ENTRY* each = head->Flink; each != head; each = each->Flink) {
        const auto* const entry = CONTAINING_RECORD(each, LDR_DATA_TABLE_ENTRY, InMemoryOrderLinks);
        module_came(entry->DllBase, entry->FullDllName.Buffer, entry->FullDllName.Length / 2U);
    }
}

void put_back(IMAGE_DATA_DIRECTORY& place, const injection::directory& own) noexcept {
    place.VirtualAddress = own.address;
    place.Size = own.size;
}

// The handle of the arena, and the program's headers as they were; null: the recorder has not started this process.
HANDLE take_injection(std::uint64_t& recorder) noexcept {
    const loaded_image program(GetModuleHandleW(nullptr));
    const IMAGE_DATA_DIRECTORY imports = program.directory(IMAGE_DIRECTORY_ENTRY_IMPORT);
    if (imports.VirtualAddress < program.size())
        return nullptr; // within the program itself
    const injection head = *program.at<const injection>(imports.VirtualAddress - injection_size);
    if (head.magic != injection_magic)
        return nullptr;
    auto* const headers =
        program.at<IMAGE_NT_HEADERS64>(static_cast<std::uint32_t>(program.at<const IMAGE_DOS_HEADER>(0)->e_lfanew));
    DWORD before;
    if (VirtualProtect(headers, sizeof *headers, PAGE_READWRITE, &before)) {
        IMAGE_DATA_DIRECTORY* const directories = headers->OptionalHeader.DataDirectory;
        put_back(directories[IMAGE_DIRECTORY_ENTRY_IMPORT], head.imports);
        put_back(directories[IMAGE_DIRECTORY_ENTRY_BOUND_IMPORT], head.bound_imports);
        put_back(directories[IMAGE_DIRECTORY_ENTRY_IAT], head.addresses);
        VirtualProtect(headers, sizeof *headers, before, &before);
    }
    recorder = head.recorder;
    return reinterpret_cast<HANDLE>(static_cast<std::uintptr_t>(head.section));
}

void start() noexcept {
    std::uint64_t recorder = 0;
    const HANDLE section = take_injection(recorder);
    if (section == nullptr)
        return;
    auto* const shared = static_cast<arena*>(MapViewOfFile(section, FILE_MAP_READ | FILE_MAP_WRITE, 0, 0, 0));
    CloseHandle(section);
    if (shared == nullptr || shared->magic != arena_magic || shared->version != arena_version)
        return;
    shared->recorder = recorder;
    this_process.shared = shared;
    this_process.depth = shared->depth < most_frames ? shared->depth : most_frames;
    this_process.own = &shared->sessions[0];
    this_process.ring = shared->first_ring;
    this_process.own->process = static_cast<std::int32_t>(GetCurrentProcessId());
    this_process.own->number = 1;
    add_allocation_code_of_program();
    find_system_functions();
    add_first_modules();
    void* cookie;
    LdrRegisterDllNotification(0, &hear, nullptr, &cookie);
    begin_recording();
    this_process.own->state.store(session_state::running, std::memory_order_release);
    shared->taken.store(1, std::memory_order_release);
}

} // namespace

} // namespace qor::record

// Nothing is to be done at the end: what was recorded lies in the arena.
extern "C" BOOL WINAPI qor_record_entry(HINSTANCE, DWORD reason, void*) {
    if (reason == DLL_PROCESS_ATTACH)
        qor::record::start();
    return TRUE;
}

extern "C" void qor_record_hooks() {}
