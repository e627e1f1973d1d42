// The kept client: it uses something of most families, reads the fields of the framework's types in its own code, calls
// interfaces through their tables, lets the framework call its own, and prints what comes of it. Its arguments are the
// folder of the kept module and a folder to write into.
#include "gauge.h"

#include <algorithm>
#include <atomic>
#include <cstring>

namespace {

void print(const char* what, const char* text) { fixed_fprintf(stdout, "%s: %s\n", what, text); }

void print_error(const char* what) {
    qorString text;
    qorGetLastError(text);
    print(what, text);
}

void strings() {
    qorString text("  Pears and apples ");
    text.TrimBoth();
    qorString part;
    text.GetMid(part, 6, 3);
    print("part", part);
    qorStringArray words;
    text.Tokenise_WS(words);
    words.Append("figs");
    words.Sort(true);
    for (const qorString& word : words)
        print("word", word);
    qorString number;
    number.FormatUnsigned(48879, 16);
    print("number", number);
    number.Printf("%s has %u bytes", text.Text(), text.Length());
    print("printf", number);
}

void arrays() {
    uint32_Array numbers;
    for (uint32 i = 0; i < 1000; ++i)
        numbers.Append(i * 7919 % 1000);
    std::sort(numbers.begin(), numbers.end());
    fixed_fprintf(stdout, "sorted: %d %u %u\n", std::is_sorted(numbers.begin(), numbers.end()), *numbers.begin(),
                  *(numbers.end() - 1));
    zetArray<uint16> shorts;
    shorts.Append(3);
    shorts.Append(4);
    shorts.RemoveAt(0, 1);
    fixed_fprintf(stdout, "array: %u %u\n", static_cast<unsigned>(shorts.GetCount()), shorts[0]);
}

void containers() {
    zetSmartPointer<IQORMapStringToU32> map;
    create_IQORMapStringToU32(map.Out());
    map->Set("seven", 7);
    map->Set("eight", 8);
    uint32 value = 0;
    fixed_fprintf(stdout, "map: %d", map->Get("eight", &value));
    fixed_fprintf(stdout, " %u %d\n", value, map->Get("nine", &value));
    zetSmartPointer<IQORAttributeSet> set;
    create_IQORAttributeSet(set.Out());
    qorString json;
    const char text[] = R"({"name": "base", "list": [1, 2.5, true], "deep": {"empty": null}})";
    if (!set->ReadJson(text, std::strlen(text)) || !set->Remove("deep"))
        print_error("json");
    set->Set("more", qorVariant(qorTextView("text")));
    set->WriteJson(json, 0);
    print("json", json);
    zetSmartPointer<IQORMemoryDataSink> sink;
    create_IQORMemoryDataSink(sink.Out());
    fixed_fprintf(stdout, "written: %d\n", set->Write(*sink));
}

void times() {
    qorTimeInfo info{};
    info.year = 2024;
    info.month = 2;
    info.day = 29;
    info.hour = 13;
    info.minute = 5;
    qorString text;
    qorFormatTime(text, "%Y-%m-%d %H:%M", info);
    print("time", text);
    fixed_fprintf(stdout, "weekday: %d\n", qorGetDayOfWeek(info));
}

void files(const char* folder) {
    qorString path(folder);
    path.Append("/kept");
    if (!qorReplaceFile(path, "abc"))
        print_error("replace");
    qorFile file;
    char bytes[3] = {};
    if (!file.Open(path, qorFileReading | qorFileExisting) || !file.ReadExact(bytes, sizeof bytes))
        print_error("file");
    fixed_fprintf(stdout, "file: %.3s\n", bytes);
    zetSmartPointer<IQORDigestEngine> engine;
    uint8_Array digest;
    if (!qorCreateDigestEngine("md5", engine.Out()) || !engine->Update(bytes, 3) || !engine->GetDigest(digest))
        print_error("digest");
    for (const uint8 byte : digest)
        fixed_fprintf(stdout, "%02x", byte);
    fixed_fprintf(stdout, "\n");
    if (!file.Open("/nowhere/at/all", qorFileReading | qorFileExisting))
        print_error("missing");
}

class work final : public IQORThreadWork {
public:
    void AddRef() noexcept override { ++m_references; }
    void Release() noexcept override { --m_references; }
    int QueryInterface(const char*, void**) noexcept override { return 0; }
    uint32 Run() override { return 42; }

private:
    std::atomic<int> m_references{1};
};

void threads() {
    work todo;
    zetSmartPointer<IQORThread> thread;
    uint32 result = 0;
    if (!qorBeginThread(&todo, {}, thread.Out()) || !qorWaitThread(*thread, 0, &result))
        print_error("thread");
    fixed_fprintf(stdout, "thread: %u\n", result);
}

void components(const char* folder) {
    zetSmartPointer<IQORModuleManager> manager;
    qorGetModuleManager(manager.Out());
    zetSmartPointer<IGauge> gauge;
    qorString text;
    if (!manager->AddFolder(folder) || !qorCreateComponent("base.gauge.words", gauge.Out()) ||
        !gauge->Measure(qorString("one three"), text))
        print_error("component");
    print("component", text);
    zetSmartPointer<IQORModuleList> list;
    if (!manager->GetModules(list.Out()))
        print_error("modules");
    for (const qorModuleInfo& each : list->Modules())
        if (std::strcmp(each.name, "base-gauge") == 0)
            fixed_fprintf(stdout, "module: %s %s %u %s\n", each.name, each.version, static_cast<unsigned>(each.state),
                          each.Components()[0]);
}

} // namespace

int main(int argc, char** argv) {
    qorStringArray args;
    args.SetFromArgVec(argc, argv);
    if (!qorInitProcess("base", args, 0) || args.GetCount() != 2) {
        fputerr(stderr, true);
        return 1;
    }
    strings();
    arrays();
    containers();
    times();
    files(args[1]);
    threads();
    components(args[0]);
    qorCleanup();
}
