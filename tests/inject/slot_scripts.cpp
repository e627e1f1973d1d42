// Values, texts, files, containers, and what stores them.
#include "slot_scripts.h"

#include <string>
#include <unistd.h>

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
