#include "container/stream_form.h"

#include "container/variant.h"
#include "error/error.h"

#include <algorithm>
#include <bit>

namespace {

// Lengths and counts come from the stream, so memory is allocated in steps of this size.
constexpr std::size_t piece_size = 64 * 1024;

constexpr uint32 most_expected = 16; // attributes for which there is room before they arrive

constexpr uint64 most_text = 0xfffffffe; // bytes of a text or of raw bytes

} // namespace

namespace qor::container {

bool stream_fault(const char* reason) noexcept {
    error::set(qorError_stream_form, {reason});
    return false;
}

bool stream_writer::begin(stream_form form) noexcept { return put(static_cast<uint16>(form)) && put(stream_version); }

bool stream_writer::put(uint64 number) noexcept {
    return put(static_cast<uint32>(number)) && put(static_cast<uint32>(number >> 32));
}

bool stream_writer::put(std::string_view bytes) noexcept {
    return put(static_cast<uint32>(bytes.size())) &&
           (bytes.empty() || m_sink->Write(bytes.data(), static_cast<uint32>(bytes.size())));
}

bool stream_writer::put(const qorVariant& value) noexcept {
    if (!put(static_cast<uint16>(value.Kind())))
        return false;
    switch (value.Kind()) {
    case qorVariantKind::null:
        return true;
    case qorVariantKind::logical:
        return put(static_cast<uint16>(value.m_data.natural));
    case qorVariantKind::text:
    case qorVariantKind::bytes:
        return put(std::string_view(value.m_data.bytes, value.m_data.length));
    case qorVariantKind::list:
        return put_elements(value.AsList());
    case qorVariantKind::set:
        return put_elements(value.AsSet());
    default: // the 64 bits of a number, of a real in the form of IEEE 754
        return put(value.m_data.natural);
    }
}

bool stream_writer::put_elements(IQORVariantList* list) noexcept {
    const auto values = list->Values();
    return put(list->GetCount()) &&
           std::all_of(values.begin(), values.end(), [this](const qorVariant& each) { return put(each); });
}

bool stream_writer::put_elements(IQORAttributeSet* set) noexcept {
    const auto attributes = set->Attributes();
    return put(set->GetCount()) && std::all_of(attributes.begin(), attributes.end(), [this](const qorAttribute& each) {
               return put(std::string_view(each.name)) && put(each.value);
           });
}

bool stream_writer::put_elements(IQORAttributeSetDelta* delta) noexcept {
    const auto changes = delta->Changes();
    return put(delta->GetCount()) &&
           std::all_of(changes.begin(), changes.end(), [this](const qorAttributeChange& each) {
               return put(std::string_view(each.name)) && put(uint16{each.was}) && (!each.was || put(each.before)) &&
                      put(uint16{each.is}) && (!each.is || put(each.after));
           });
}

bool stream_reader::begin(stream_form form) noexcept {
    uint16 number = 0, version = 0;
    if (!get(number) || !get(version))
        return false;
    if (number != static_cast<uint16>(form))
        return stream_fault("something else");
    return version == stream_version || stream_fault("a version that this release does not know");
}

bool stream_reader::get(uint64& number) noexcept {
    uint32 low = 0, high = 0;
    if (!get(low) || !get(high))
        return false;
    number = uint64{high} << 32 | low;
    return true;
}

bool stream_reader::get(std::string& bytes) noexcept {
    uint32 length = 0;
    if (!get(length))
        return false;
    if (length > most_text)
        return stream_fault("a text with an impossible length");
    bytes.clear();
    while (bytes.size() < length) {
        const std::size_t begin = bytes.size();
        bytes.resize(begin + std::min<std::size_t>(piece_size, length - begin));
        if (!m_source->Read(bytes.data() + begin, static_cast<uint32>(bytes.size() - begin)))
            return false;
    }
    return true;
}

bool stream_reader::get(bool& flag) noexcept {
    uint16 number = 0;
    if (!get(number))
        return false;
    flag = number == 1;
    return number <= 1 || stream_fault("a truth value that is neither 0 nor 1");
}

bool stream_reader::get(qorVariantKind& kind) noexcept {
    uint16 number = 0;
    if (!get(number))
        return false;
    kind = static_cast<qorVariantKind>(number);
    return kind <= qorVariantKind::set || stream_fault("a value of an unknown kind");
}

bool stream_reader::get_scalar(qorVariantKind kind, qorVariant& value) noexcept {
    if (kind == qorVariantKind::null) {
        value = {};
        return true;
    }
    if (kind == qorVariantKind::logical) {
        bool flag = false;
        if (!get(flag))
            return false;
        value = flag;
        return true;
    }
    if (kind == qorVariantKind::text || kind == qorVariantKind::bytes) {
        std::string bytes;
        if (!get(bytes))
            return false;
        value = kind == qorVariantKind::text ? qorVariant(bytes) : qorVariant::Bytes(std::as_bytes(std::span(bytes)));
        return true;
    }
    uint64 number = 0;
    if (!get(number))
        return false;
    value = {};
    value.m_data.natural = number;
    value.m_data.kind = kind;
    return true;
}

bool stream_reader::get(qorVariant& value, uint32 level) noexcept {
    qorVariantKind kind{};
    if (!get(kind))
        return false;
    if (kind != qorVariantKind::list && kind != qorVariantKind::set)
        return get_scalar(kind, value);
    if (!check_level(level))
        return false;
    value = kind == qorVariantKind::list ? variant_of_list(level) : variant_of_set(level);
    return kind == qorVariantKind::list ? get_elements(value.AsList()) : get_elements(value.AsSet());
}

bool stream_reader::get_elements(IQORVariantList* list) noexcept {
    uint32 count = 0;
    if (!get(count))
        return false;
    for (; count != 0; --count) {
        qorVariantKind kind{};
        if (!get(kind))
            return false;
        if (kind == qorVariantKind::list) {
            IQORVariantList* const inner = list->AppendList();
            if (inner == nullptr || !get_elements(inner))
                return false;
        } else if (kind == qorVariantKind::set) {
            IQORAttributeSet* const inner = list->AppendSet();
            if (inner == nullptr || !get_elements(inner))
                return false;
        } else {
            qorVariant value;
            if (!get_scalar(kind, value) || !list->Append(value))
                return false;
        }
    }
    return true;
}

bool stream_reader::get_elements(IQORAttributeSet* set) noexcept {
    uint32 count = 0;
    if (!get(count))
        return false;
    set->Reserve(std::min(count, most_expected));
    std::string name;
    for (; count != 0; --count) {
        qorVariantKind kind{};
        if (!get(name) || !get(kind))
            return false;
        if (set->Find(name) != nullptr)
            return stream_fault("a name twice");
        if (kind == qorVariantKind::list) {
            IQORVariantList* const inner = set->SetList(name);
            if (inner == nullptr || !get_elements(inner))
                return false;
        } else if (kind == qorVariantKind::set) {
            IQORAttributeSet* const inner = set->SetSet(name);
            if (inner == nullptr || !get_elements(inner))
                return false;
        } else {
            qorVariant value;
            if (!get_scalar(kind, value) || !set->Set(name, {}))
                return false;
            set->Attributes().back().value = std::move(value); // which Set would copy
        }
    }
    return true;
}

} // namespace qor::container

bool qor::glue::qorVariant_Write(const qorVariant* self, IQORDataSink* sink) noexcept {
    container::stream_writer to(sink);
    return to.begin(container::stream_form::variant) && to.put(*self);
}

bool qor::glue::qorVariant_Read(qorVariant* self, IQORDataSource* source) noexcept {
    container::stream_reader from(source);
    qorVariant value;
    if (!from.begin(container::stream_form::variant) || !from.get(value, 1))
        return false;
    *self = std::move(value);
    return true;
}
