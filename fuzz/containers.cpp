// Hostile stream forms and JSON texts of the containers. An accepted one must survive being written and read again.
// The first byte of an input selects the container.
#include "qor/qor.h"

#include <cstdint>
#include <cstdlib>
#include <string>

namespace {

void require(bool agreed) {
    if (!agreed)
        std::abort();
}

template <class OBJECT>
bool read(OBJECT& object, const std::string& bytes) {
    zetSmartPointer<IQORMemoryDataSource> source;
    create_IQORMemoryDataSource(bytes.data(), static_cast<uint32>(bytes.size()), source.Out());
    return object.Read(*source);
}

template <class OBJECT>
std::string written(OBJECT& object) {
    zetSmartPointer<IQORMemoryDataSink> sink;
    create_IQORMemoryDataSink(sink.Out());
    require(object.Write(*sink));
    return {static_cast<const char*>(sink->GetData()), sink->GetSize()};
}

template <class OWNED>
void try_stream(const std::string& bytes) {
    OWNED object;
    if (!read(*object.Interface(), bytes))
        return;
    const std::string form = written(*object.Interface());
    require(form.size() <= bytes.size());
    OWNED back, copy(object);
    require(read(*back.Interface(), form) && back == object && copy == object);
    require(back->GetHash() == object->GetHash() && written(*copy.Interface()) == form);
}

void try_variant(const std::string& bytes) {
    qorVariant value;
    if (!read(value, bytes))
        return;
    const std::string form = written(value);
    require(form == bytes.substr(0, form.size())); // a value has one form only
    qorVariant back;
    require(read(back, form) && back == value && back.Hash() == value.Hash());
}

void try_json(const std::string& text) {
    qorVariant value, back;
    if (!value.ReadJson(text))
        return;
    qorString json, again;
    require(value.WriteJson(json) && back.ReadJson(json) && back == value);
    require(value.WriteJson(again, 3) && back.ReadJson(again) && back == value);
    qorVariant streamed;
    require(read(streamed, written(value)) && streamed == value);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0)
        return 0;
    const std::string bytes(reinterpret_cast<const char*>(data + 1), size - 1);
    switch (data[0]) {
    case 'v':
        try_variant(bytes);
        break;
    case 'l':
        try_stream<qorVariantList>(bytes);
        break;
    case 'o':
        try_stream<qorValueList>(bytes);
        break;
    case 's':
        try_stream<qorAttributeSet>(bytes);
        break;
    case 'd':
        try_stream<qorAttributeSetDelta>(bytes);
        break;
    case 'a':
        try_stream<qorAttributeSetArray>(bytes);
        break;
    case 'h':
        try_stream<qorAttributeSetDeltaArray>(bytes);
        break;
    case 'm':
        try_stream<qorMapStringToString>(bytes);
        try_stream<qorMapStringToU32>(bytes);
        try_stream<qorMapU32ToString>(bytes);
        try_stream<qorMapU32ToU32>(bytes);
        break;
    case 'b':
        try_stream<qorBlockTracker64>(bytes);
        break;
    case 'j':
        try_json(bytes);
        break;
    default:
        break;
    }
    return 0;
}
