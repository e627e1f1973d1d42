// The process, its threads and children, the host, the network, components.
#include "slot_scripts.h"

#include <cstring>
#include <exception>
#include <fcntl.h>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

// Connects to a port of this host, sends a word, and prints what comes back up to the end.
void call(uint16 port) {
    const int peer = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    to.sin_port = htons(port);
    char bytes[10] = {};
    if (connect(peer, reinterpret_cast<const sockaddr*>(&to), sizeof to) != 0 ||
        send(peer, "word", 4, MSG_NOSIGNAL) != 4 || recv(peer, bytes, 4, MSG_WAITALL) != 4)
        std::_Exit((std::fputs("no answer\n", stderr), 1));
    close(peer);
    say(bytes);
}

struct no_paper final : std::exception {
    const char* what() const noexcept override { return long_text; }
};

class thing final : public qor::object<IQORInterface> {
public:
    thing() : object("inject.thing", "IQORInterface") {}
};

struct counted {
    qorString text{long_text};
};

} // namespace

// The manager is a mocked one.
void use_services() {
    qorServiceStatus status;
    MUST(qorServiceExists("quick"));
    MUST(qorServiceStart("quick", {}, &status));
    say(status.name);
    say(status.description);
    std::printf("%u\n", status.process);
    MUST(qorServiceStop("quick"));
    qorClearLastError();
    qorString text;
    if (qorServiceExists("nothing") || qorGetLastError(text) != qorError_none)
        fail("qorServiceExists");
    if (qorServiceStart("exits") || qorGetLastError(text) != qorError_service_failed)
        fail("qorServiceStart");
    say(text);
}

void use_trace() {
    const uint32 code = qorDebugAllocateCode("inject.slots.with.a.long.name");
    MUST(qorDebugAttachFile("trace"));
    MUST(qorDebugEnableCode("inject.*", true));
    const qorDebugSeq scope(code, "%s", long_text);
    for (int i = 0; i < 300; ++i)
        qorDebug(code, "%s %d", long_text, i);
    qorStringArray codes;
    qorDebugGetEnabledCodes(codes);
    say(codes);
    MUST(qorDebugAttachFile(nullptr));
}

void use_process() {
    const char* const words[] = {"program", "--qor-debug=none.*", "--colour=red", "word", nullptr};
    qorStringArray args;
    args.SetFromVector(words);
    MUST(qorInitProcess("inject_slots", args, 0));
    args.RemoveAt(0, args.GetCount() != 0 && std::strcmp(args[0], "program") == 0 ? 1 : 0);
    qorString name, value;
    while (qorNextOption(args, name, value))
        say(value);
    say(args);
    MUST(qorRegisterCleanupRoutine([](void*) noexcept { say("cleaned up"); }, nullptr));
    qorCleanup();
}

void use_host() {
    zetSmartPointer<IQORSystemInfo> info;
    create_IQORSystemInfo(info.Out());
    qorString text;
    MUST(info->GetSystemType(text));
    say(text);
    MUST(info->GetCPUType(text));
    std::printf("%u %u\n", info->GetLogicalCPUCount(), info->GetPhysicalCoreCount());
    qorStringArray ports;
    MUST(qorEnumSerialPorts(ports));
    say(ports);
    for (uint32 i = 0; i < ports.GetCount(); ++i)
        say(qorGetSerialPortLocation(ports[i], text) ? text.Text() : "nowhere");
    std::printf("%llu\n", qor_get_simd_alignment());
}

void use_network() {
    zetSmartPointer<IQORHostAddressList> found;
    MUST(qorLookupHost("192.0.2.7", found.Out()));
    qorHostAddress address;
    MUST(found->GetAddress(0, address));
    qorString text;
    qorAddressToString(address, true, text);
    say(text);
    MUST(qorStringToAddress("2001:db8::7", address));
    qorAddressToString(address, true, text);
    say(text);
    zetSmartPointer<IQORNetInterfaceList> all;
    MUST(qorEnumerateNetInterfaces(all.Out()));
    std::printf("%u\n", all->GetCount());
    std::vector<qorLocalAddress> addresses;
    MUST(qorGetLocalAddresses(addresses));
    std::printf("%zu\n", addresses.size());
    MUST(qorGetHostDNSName("localhost", text));
    say(text);
    for (const char* const each : {"tcp://example.org:80", "[2001:db8::1]:1", "unix:/run/a path that needs a block"}) {
        qorServiceDescriptor service;
        MUST(qorParseServiceDescriptor(each, service));
        service.GetText(text);
        say(text);
    }
    qorServiceDescriptor none;
    if (!qorParseServiceDescriptor(long_text, none))
        say_failure(qorError_descriptor_syntax);
}

void use_listeners() {
    qorIPPortListener listener;
    MUST(listener.Begin({.address = "127.0.0.1"}, [](IQORIPConnection& connection) {
        char bytes[4];
        uint64 count = 0;
        if (connection.Read(bytes, sizeof bytes, 60'000, count))
            (void)connection.Write(std::string_view(bytes, static_cast<std::size_t>(count)), 60'000);
    }));
    call(listener.Port());
    qorIPPortListener second;
    qorString text; // names the port, which is another one in each run
    if (second.Begin({.address = "127.0.0.1", .port = listener.Port()}, [](IQORIPConnection&) {}) ||
        qorGetLastError(text) != qorError_cannot_listen)
        fail("another failure");
    std::printf("%d\n", listener.Close());
}

void use_time() {
    qorString text;
    MUST(qorFormatTime(text, "%F %T %z, and some words that make it long", 132'000'000'000'000'000, true));
    say(text);
    qorTimeInfo info{};
    qorConvertTime(132'000'000'000'000'000, true, info);
    std::printf("%llu\n", qorConvertLocalTimeInfo(info));
}

void use_threads() {
    uint32 result = 0;
    zetSmartPointer<IQORThread> thread;
    MUST(qorBeginThread([] { return 7u; }, thread.Out(), {.name = long_text}));
    MUST(qorWaitThread(*thread, 0, &result));
    std::printf("%u\n", result);
    MUST(qorBeginThread([] { throw no_paper(); }, thread.Out(), {.name = "odd"}));
    if (!qorWaitThread(*thread))
        say_failure(qorError_thread_failed);
}

void use_timers() {
    qorGate gate(false);
    qorTimer timer;
    MUST(timer.Once(std::chrono::milliseconds(1), [&] { gate.Open(); }));
    gate.Wait();
    qorTimerId later = 0;
    MUST(qorSetupTimer([] {}, {.delay = ~uint64{0}}, &later));
    std::printf("%d\n", qorCancelTimer(later));
}

void use_children() {
    qorChildResult result;
    const qorStringArray words = [] {
        qorStringArray made;
        for (const char* const each : {"cat", "-", "no such file"})
            made.Append(each);
        return made;
    }();
    MUST(qorExecuteChildProcess({.arguments = &words, .folder = "/", .whole_tree = true}, long_text, result));
    std::printf("%u %s\n%s", result.end.code, result.output.c_str(), result.errors.c_str());
    if (!qorExecuteChildProcess({long_text}, result))
        say_failure(qorError_child_program_missing);
}

void use_serial() {
    const int other_end = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (other_end < 0 || grantpt(other_end) != 0 || unlockpt(other_end) != 0)
        return (void)std::puts("no pseudo-terminal");
    const char* const name = ptsname(other_end);
    qorSerialParams params;
    MUST(qorSetParams_Basics(params, 250000));
    MUST(qorSetParams_FlowControl(params, true, false));
    MUST(qorSetParams_Timeouts(params, {.read_total = 0}));
    zetSmartPointer<IQORSerialPort> port;
    MUST(qorOpenSerialPortEx(name, params, qorSerialClosing::restore, port.Out()));
    qorSerialSettings settings{};
    MUST(port->GetSettings(settings));
    std::printf("%u\n", settings.bits_per_second);
    char bytes[8];
    uint32 count = 0;
    MUST(port->ReadAll(bytes, sizeof bytes, count) && port->WriteAll("text"));
    MUST(qorSetParams_Basics(params, 300, 7));
    const bool is_refused = !port->SetParams(params);
    qorString text;
    std::printf("%d %d\n", is_refused, qorGetLastError(text) == qorError_serial_not_taken);
    port.Empty();
    close(other_end);
}

void use_log() {
    unlink("log"); // that of a run that has failed
    MUST(qorSetLogTarget("log"));
    for (int i = 0; i < 5; ++i)
        MUST(qorSendLogText(qorLogLevel::info, long_text));
    MUST(qorSendLogText(qorLogLevel::info, "two\nlines"));
    MUST(qorSendLogMessage(qorLogLevel::error, "qorcore", 10, long_text, long_text));
    MUST(qorLogEntry(qorLogLevel::notice).Text(long_text).Field("A_FIELD", long_text).Send());
    MUST(qorSetLogTarget("system"));
    MUST(qorSendLogText(qorLogLevel::info, long_text));
    (void)qorFlushLog(1); // this host may have no log
    MUST(qorSetLogTarget("stderr"));
    static char text[1 << 16];
    const int file = open("log", O_RDONLY | O_CLOEXEC);
    const ssize_t size = read(file, text, sizeof text - 1);
    close(file);
    text[size > 0 ? size : 0] = '\0';
    for (const char* line = text; (line = std::strstr(line, " inject_slots ")) != nullptr; ++line)
        std::printf("%.*s\n", static_cast<int>(std::strcspn(line, "\n")), line);
}

void use_components() {
    zetSmartPointer<IQORModuleHelper> helper;
    MUST(qorCreateModuleHelper("inject-slots", "1.0", nullptr, helper.Out()));
    MUST(helper->Register<thing>("inject.slots.thing-with-a-rather-long-name"));
    zetSmartPointer<IQORInterface> made;
    MUST(qorCreateComponent("inject.slots.thing-with-a-rather-long-name", made.Out()));
    constexpr qorCatalogMessage messages[] = {{1, long_text}, {2, "{1} and {2}"}};
    MUST(helper->AddCatalog("inject-slots", messages));
    qorString text;
    MUST(text.Format("inject-slots", 2, long_text, "more"));
    say(text);
    zetSmartPointer<IQORModuleManager> manager;
    qorGetModuleManager(manager.Out());
    MUST(manager->AddFolder("/usr"));
    zetSmartPointer<IQORModuleList> modules;
    MUST(manager->GetModules(modules.Out()));
    for (const qorModuleInfo& each : modules->Modules())
        say(each.name);
    MUST(manager->LoadModule("qor-network"));
    if (!qorCreateComponent("inject.slots.unknown", made.Out()))
        say_failure(qorError_component_unknown);
    const counted* const value = qorGetGlobalSlot<counted>("inject.counted");
    MUST(value != nullptr);
    say(value->text);
    MUST(helper->UnregisterComponent("inject.slots.thing-with-a-rather-long-name"));
    qorCleanup();
}

void use_ipc() {
    zetSmartPointer<IQORIpcServer> server;
    const auto answer = [](IQORIpcConnection& from, std::string_view message) { MUST(from.TrySend(message)); };
    char folder[4096];
    const std::string address = "unix:" + std::string(getcwd(folder, sizeof folder)) + "/ipc";
    MUST(qorCreateIpcServer(address.c_str(), {}, answer, server.Out()));
    zetSmartPointer<IQORIpcConnection> connection;
    MUST(qorCreateIpcConnection(address.c_str(), connection.Out()));
    std::string back;
    for (const std::string& message : {std::string(long_text), std::string(100'000, 'x'), std::string()}) {
        MUST(connection->Send(message));
        MUST(connection->Receive(back, 60'000));
        std::printf("%d\n", back == message);
    }
    MUST(connection->Close(60'000));
    MUST(server->Close(60'000));
    if (!qorCreateIpcConnection(address.c_str(), connection.Out()))
        say_failure(qorError_ipc_no_server);
}
