// Every family of operations behind the table, with the n-th memory request failing, for every n:
//
//   inject_slots FOLDER          under the injector (tests/support/inject), which must be preloaded
//
// Each script runs once undisturbed and then, for n = 1, 2, ..., in a child process of its own, until it makes fewer
// than n requests. Only the children call the framework, so that binding and all first uses can fail too. A child must
// print the same as the undisturbed one and end with 0, or end with another code and a text on standard error. FOLDER
// must be empty; it is for files.
#include "qor/qor.h"
#include "support/inject/inject.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

// Ends a script whose operation failed.
[[noreturn]] void fail(const char* operation) {
    std::fprintf(stderr, "%s: ", operation);
    fputerr(stderr, true);
    std::_Exit(1);
}

#define MUST(operation) (operation) ? void() : fail(#operation)

void say(const char* text) { std::printf("%s\n", text); }
void say(const qorStringArray& texts) {
    for (uint32 i = 0; i < texts.GetCount(); ++i)
        say(texts[i]);
}

constexpr char long_text[] = "a text that is long enough to need a block of its own, whatever holds it";

void use_memory() {
    void* block = qor_do_malloc(64, 1000, true, "slots", 1);
    block = qor_do_realloc(block, 5000, "slots", 2);
    qor_do_free(block, "slots", 3);
    char* const text = qor_do_strdup(long_text, "slots", 4);
    char* const begin = qor_do_strndup(text, 6, "slots", 5);
    void* const copy = qor_do_memdup(text, 7, "slots", 6);
    void* const huge = qor_do_huge_alloc(1 << 20, "slots", 7);
    say(begin);
    qor_do_huge_free(huge, "slots", 8);
    for (void* each : {static_cast<void*>(text), static_cast<void*>(begin), copy})
        qor_do_free(each, "slots", 9);
    if (void* const tried = qor_do_malloc(0, 100, false, "slots", 10))
        qor_do_free(tried, "slots", 11);
    else
        std::_Exit((std::fputs("null, as asked for\n", stderr), 1));
}

void use_vector() {
    qorVector vector(8);
    for (int i = 0; i < 100; ++i)
        std::memset(vector.Append(1), i, 8);
    std::memset(vector.Insert(50, 200), 1, 1600);
    vector.Collapse(10, 20);
    vector.SetAlloc(1000);
    std::printf("%u\n", vector.GetCount());
    uint8_Array bytes;
    for (int i = 0; i < 100; ++i)
        bytes.Append(static_cast<uint8>(i));
    std::printf("%u\n", bytes.GetCount());
}

void use_string() {
    qorString text(long_text);
    for (int i = 0; i < 10; ++i)
        text.Append(text);
    text.Insert(3, long_text);
    qorString part, other(text);
    text.GetMid(part, 10, 100);
    part.ToUpper();
    say(part);
    part.Printf("%s %d %f", long_text, 7, 1.5);
    say(part);
    part.FormatUnsigned(255, 16);
    say(part);
    qorDataBlock block;
    MUST(other.GetAsUCS2(block));
    qorString back;
    MUST(back.SetUCS2(static_cast<const uint16*>(block.ptr())));
    std::printf("%d\n", back == other);
    qorString path("/some/where/a file with a long name.tar.gz"), folder, name, extension;
    path.FileSplitName(folder, name, extension);
    say(name);
}

void use_array() {
    qorStringArray words;
    const qorString text(
        "a few words and some more of them, until there are enough to need more room than one word does");
    MUST(text.Tokenise_WS(words));
    words.Append(words);
    words.Sort(true);
    words.AddUnique(long_text);
    words.InsertAt(3, long_text);
    words.RemoveAt(0, 2);
    qorStringArray copy(words);
    copy.SortNoCase(false);
    zetSmartPointer<IQORMemoryDataSink> sink;
    create_IQORMemoryDataSink(sink.Out());
    MUST(copy.Write(*sink));
    zetSmartPointer<IQORMemoryDataSource> source;
    create_IQORMemoryDataSource(sink->GetData(), sink->GetSize(), source.Out());
    qorStringArray back;
    MUST(back.Read(*source));
    say(back);
}

void use_messages() {
    qorString text;
    MUST(text.Format("qorcore", 1021, "a", long_text, "c", "d", "e"));
    say(text);
    MUST(text.FormatEx("qorcore", 1022, "de", nullptr));
    say(text);
    MUST(fputmsg(stdout, "qorcore", 1020, "name", long_text));
    qorWriteToolkitHelp(stdout);
    qorStringArray languages;
    qorGetActiveCatalogLanguages(languages);
    say(languages);
}

void use_errors() {
    qorSetLastError(qorError_cannot_open_file, long_text, long_text);
    {
        const qorSaveErrorInfo saved;
        qorClearLastError();
        saved.Put(stdout, true);
    }
    fputerr(stdout, true);
    zetSmartPointer<IQORErrorBuilder> builder;
    create_IQORErrorBuilder(builder.Out());
    builder->SetNumber(qorError_cannot_read_file);
    builder->AddInsert(long_text);
    builder->AddInsert("why");
    zetSmartPointer<IQORErrorMessage> made;
    builder->Build(made.Out());
    made->Put(stdout, true);
    builder->SetLastError();
    fputerr(stdout, true);
}

void use_files() {
    qorFile file;
    MUST(file.Open("lines", qorFileReading | qorFileExisting | qorFileShared));
    char begin[6] = "";
    MUST(file.ReadAt(0, begin, 5));
    say(begin);
    zetSmartPointer<IQORSimpleFileReader> reader;
    create_IQORSimpleFileReader(reader.Out());
    MUST(reader->Open("lines", 0));
    qorString line;
    uint32 count = 0;
    qorClearLastError();
    while (reader->ReadLine(line))
        ++count;
    zetSmartPointer<IQORErrorMessage> end;
    qorGetLastError(end.Out());
    MUST(!end->IsError());
    std::printf("%u lines, the last %u long\n", count, line.Length());
    if (!reader->Open("/no/such/file/with/a/long/name", 0))
        fputerr(stdout, true);

    qorFile made;
    qorString path;
    MUST(made.CreateUnique(".", "unique", nullptr, path));
    MUST(made.Write(long_text) && made.Seek(2) && made.ReadExact(begin, 5) && made.CloseAndDelete());
    say(begin);
    qorOpenFile* handle = nullptr;
    MUST(qorFileOpen("lines", qorFileReading | qorFileExisting | qorFileShared, &handle));
    qorFileInfo info;
    MUST(qorFileGetFileInfo(handle, info) && qorFileClose(handle));
    std::printf("%llu\n", info.size);
    MUST(qorReplaceFile("replaced", long_text));
    qorFileSource from;
    qorFileTarget to;
    MUST(from.Open("replaced") && to.Open("copy", qorFileReplace));
    MUST(from.CopyTo(to).has_value() && to.Write("end") && to.Close());
    std::printf("%llu\n", to.GetPosition());
}

void use_folders() {
    MUST(qorCreateDirectoryPath("folders/with/a/path/that/is/long/enough/to/need/a/block/of/its/own"));
    MUST(qorRenameFile("folders/with", "folders/without"));
    zetSmartPointer<IQORFolderContents> contents;
    MUST(qorGetFolderContents("folders", contents.Out()));
    for (const qorFolderEntry& each : contents->Entries())
        say(each.text);
    const auto info = qorGetFileInfoEx("folders");
    MUST(info.has_value());
    say(info->owner_name);
    qorString path;
    MUST(qorTranslatePath("${qor-library}/$${x}", path));
    qorTempFolder folder;
    MUST(folder.Create("prefix", "folders"));
    zetSmartPointer<IQORRemovableDiskList> disks;
    MUST(qorGetRemovableDiskList(disks.Out()));
    std::printf("%u %d\n", disks->GetCount(), qorIsAbsolutePath(path));
    MUST(folder.Delete());
    MUST(qorDeleteDirectoryAndContents("folders"));
    if (!qorDeleteFile("folders/no such file with a rather long name"))
        fputerr(stdout, true);
}

void use_config() {
    char path[4096];
    MUST(getcwd(path, sizeof path - 10) != nullptr);
    std::strcat(path, "/app.toml");
    unlink(path); // as an earlier run may have left it
    zetSmartPointer<IQORConfigFile> file;
    MUST(qorCreateConfigFileAbsolute(path, file.Out()));
    const qorConfig all(*file);
    MUST(all.Set("table.\"with a rather long name\".text", long_text));
    MUST(all.Set("list[].number", 7));
    MUST(all.SetLiteral("list[0].more", "[1, {a = 2}, 'three']"));
    MUST(file->Save());
    MUST(all.Remove("list[0].more[1]"));
    MUST(file->Reload());
    say(all["table"].Names());
    say(std::string(all.Get("table.\"with a rather long name\".text", "")).c_str());
    zetSmartPointer<IQORConfigNode> dummy;
    qorCreateDummyConfigNode(dummy.Out());
    zetSmartPointer<IQORConfigPack> pack;
    qorCreateConfigPack(pack.Out());
    MUST(pack->Add(*dummy) && pack->Add(*file));
    const qorConfig both(*pack);
    say(both.Names());
    std::printf("%u %d\n", both["list"][0]["more"].Origin().line, both.Get("list[0].number", 0));
    MUST(!both.Find<bool>("list[0].number"));
    fputerr(stdout, true);
    MUST(file->Save());
}

void use_store() {
    for (const char* const each : {"store", "store-wal", "store-shm", "store-journal", "store copy", "store saved"})
        unlink(each); // as an earlier run may have left it
    zetSmartPointer<IQORObjectStore> store;
    MUST(qorOpenObjectStore("store", {.synced = false, .schema = 1}, store.Out()));
    qorAttributeSet set;
    set->Set("a name with some length", long_text);
    uint64 version = 0;
    MUST(store->Put("key/1", set, 0, version));
    MUST(store->PutIf("key/1", set, version));
    {
        qorStoreTransaction both(*store);
        MUST(static_cast<bool>(both));
        MUST(store->Put("key/2", set));
        MUST(store->Remove("key/1"));
        MUST(both.Commit());
    }
    MUST(store->Put("key/3", set));
    const qorStoreWalk walk = store->Sets({.prefix = "key/"});
    for (const qorStoreEntry& each : walk) {
        say(each.key.text);
        MUST(each.Value().has_value());
    }
    MUST(!walk.HasFailed());
    qorStringArray findings;
    MUST(store->Check(findings));
    MUST(store->CopyTo("store copy"));
    qorStoreRescue report;
    MUST(store->Rescue("store saved", report));
    std::printf("%llu %llu\n", static_cast<unsigned long long>(report.sets),
                static_cast<unsigned long long>(report.lost));
    version = 7;
    MUST(!store->PutIf("key/3", set, version));
    qorString text;
    if (qorGetLastError(text) != qorError_store_conflict)
        fail("PutIf");
    say(text);
}

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

// Prints the error of an operation that must have failed for this reason.
void say_failure(uint32 expected) {
    qorString text;
    if (qorGetLastError(text) != expected)
        fail("another failure");
    say(text);
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

void use_digest() {
    zetSmartPointer<IQORDigestEngine> engine;
    MUST(qorCreateDigestEngine("md5", engine.Out()));
    MUST(engine->Update(long_text, sizeof long_text));
    uint8_Array digest;
    MUST(engine->GetDigest(digest));
    for (uint32 i = 0; i < digest.GetCount(); ++i)
        std::printf("%02x", *digest.GetElementPtr(i));
    std::printf("\n");
}

void use_containers() {
    qorVariantList list;
    MUST(list->Append(long_text));
    list->AppendSet()->SetList("inner")->Append(1.5);
    for (int i = 0; i < 20; ++i)
        MUST(list->InsertAt(0, i));
    list->Sort(false);
    qorAttributeSet set, other;
    for (int i = 0; i < 20; ++i)
        MUST(set->Set(("attribute " + std::to_string(i)).c_str(), list->GetValues()[i]));
    MUST(set->Set("list", qorVariant::List(list)));
    qorString json;
    MUST(set->WriteJson(json, 2));
    MUST(other->ReadJson(json));
    say(json);
    MUST(other->Set("attribute 3", long_text) && other->Remove("attribute 4"));
    qorAttributeSetDelta delta;
    delta->SetDifference(set, other);
    MUST(delta->Apply(set));
    qorAttributeSetArray sets;
    sets->Append(set);
    zetSmartPointer<IQORMemoryDataSink> sink;
    create_IQORMemoryDataSink(sink.Out());
    MUST(sets->Write(*sink));
    zetSmartPointer<IQORMemoryDataSource> source;
    create_IQORMemoryDataSource(sink->GetData(), sink->GetSize(), source.Out());
    qorAttributeSetArray back;
    MUST(back->Read(*source));
    std::printf("%d\n", back == sets);

    qorValueList texts;
    qorMapStringToString map;
    qorMapU32ToU32 numbers;
    qorBlockTracker64 tracker;
    for (uint32 i = 0; i < 50; ++i) {
        MUST(texts->Append(long_text));
        map->Set((long_text + std::to_string(i)).c_str(), long_text);
        numbers->Set(i, i);
        tracker->Add(i * 10, i * 10 + 3);
    }
    texts->Sort(true);
    qorMapStringToString copy(map);
    qorBlockTracker64 merged;
    merged->Merge(tracker);
    qorReadWriteLock lock;
    const qorAutoLockWrite write(lock);
    const qorAutoLockRead read(lock);
    std::printf("%u %llu %llu %llu %d\n", texts->GetCount(), copy->GetCount(), numbers->GetCount(),
                merged->FindGap(7).value_or(0), read.IsHeld());
}

struct no_paper final : std::exception {
    const char* what() const noexcept override { return long_text; }
};

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

class thing final : public qor::object<IQORInterface> {
public:
    thing() : object("inject.thing", "IQORInterface") {}
};

struct counted {
    qorString text{long_text};
};

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

struct script {
    const char* name;
    void (*run)();
};

constexpr script scripts[] = {
    {"memory", use_memory},       {"vector", use_vector},     {"string", use_string},
    {"array", use_array},         {"messages", use_messages}, {"errors", use_errors},
    {"files", use_files},         {"trace", use_trace},       {"process", use_process},
    {"host", use_host},           {"network", use_network},   {"time", use_time},
    {"digest", use_digest},       {"folders", use_folders},   {"containers", use_containers},
    {"config", use_config},       {"store", use_store},       {"threads", use_threads},
    {"timers", use_timers},       {"children", use_children}, {"log", use_log},
    {"services", use_services},   {"serial", use_serial},     {"components", use_components},
    {"listeners", use_listeners}, {"ipc", use_ipc},
};

struct outcome {
    int status;
    bool fired;
    std::string output;
    std::string errors;
};

std::string read_back(std::FILE* file) {
    std::string text;
    std::rewind(file);
    char block[4096];
    while (const std::size_t got = std::fread(block, 1, sizeof block, file))
        text.append(block, got);
    std::fclose(file);
    return text;
}

// Runs one script in a child whose `at`th memory request fails; 0: no request fails.
outcome run(const script& which, unsigned long at) {
    std::FILE* const output = std::tmpfile();
    std::FILE* const errors = std::tmpfile();
    int fired[2];
    if (output == nullptr || errors == nullptr || pipe(fired) != 0)
        std::abort();
    std::fflush(stdout);
    const pid_t child = fork();
    if (child == 0) {
        dup2(fileno(output), STDOUT_FILENO);
        dup2(fileno(errors), STDERR_FILENO);
        qor_inject_tell(fired[1]);
        qor_inject_arm("alloc", at);
        qor::or_end([&] { which.run(); });
        std::fflush(stdout);
        std::_Exit(0);
    }
    close(fired[1]);
    outcome result;
    waitpid(child, &result.status, 0);
    char byte;
    result.fired = read(fired[0], &byte, 1) == 1;
    close(fired[0]);
    result.output = read_back(output);
    result.errors = read_back(errors);
    return result;
}

bool is_right(const outcome& undisturbed, const outcome& seen) {
    if (!WIFEXITED(seen.status))
        return false;
    return WEXITSTATUS(seen.status) == 0 ? seen.output == undisturbed.output
                                         : !seen.errors.empty() || WEXITSTATUS(seen.status) == 100; // binding is silent
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2 || chdir(argv[1]) != 0 || qor_inject_arm == nullptr) {
        std::fputs("usage: inject_slots FOLDER, with the injector preloaded\n", stderr);
        return 2;
    }
    // glibc 2.36 crashes where it has no memory for the configuration of its name service (nss_database). The children
    // inherit it.
    (void)getservbyname("domain", "tcp");
    if (std::FILE* const lines = std::fopen("lines", "w")) {
        for (int i = 0; i < 10'000; ++i)
            std::fprintf(lines, "%s %d\n", long_text, i);
        std::fclose(lines);
    }
    int faults = 0;
    unsigned long runs = 0;
    for (const script& each : scripts) {
        const outcome undisturbed = run(each, 0);
        if (undisturbed.status != 0) {
            std::printf("%s fails undisturbed: %s\n", each.name, undisturbed.errors.c_str());
            return 1;
        }
        unsigned long at = 1;
        for (;; ++at, ++runs) {
            const outcome seen = run(each, at);
            if (!is_right(undisturbed, seen)) {
                std::printf("%s, request %lu: status %x, output '%.200s', errors '%.200s'\n", each.name, at,
                            seen.status, seen.output.c_str(), seen.errors.c_str());
                ++faults;
            }
            if (!seen.fired)
                break;
        }
        std::printf("%s: %lu requests\n", each.name, at - 1);
    }
    std::printf("%lu runs\n", runs);
    return faults == 0 ? 0 : 1;
}
