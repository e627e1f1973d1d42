// Inside the library: the stream form of the containers (docs/stream-form.md).
//
// A stream may claim anything, so a reader allocates memory only for what has arrived, and follows the nesting no
// deeper than qorMaxNesting.
#pragma once

#include "qor/qor.h"

#include <string>

namespace qor::container {

// The first number of each stream form. Numbers never change.
enum class stream_form : uint16 {
    variant = 0x7101,
    list = 0x7102,
    value_list = 0x7103,
    set = 0x7104,
    delta = 0x7105,
    set_array = 0x7106,
    delta_array = 0x7107,
    map_string_to_u32 = 0x7108,
    map_u32_to_string = 0x7109,
    map_string_to_string = 0x710a,
    map_u32_to_u32 = 0x710b,
    block_tracker = 0x710c,
};

inline constexpr uint16 stream_version = 1;

// Sets the last error and returns false.
bool stream_fault(const char* reason) noexcept;

// Writes to a sink. Each operation returns false if the sink fails.
class stream_writer {
public:
    explicit stream_writer(IQORDataSink* sink) noexcept : m_sink(sink) {}

    bool begin(stream_form form) noexcept;
    bool put(uint16 number) noexcept { return m_sink->WriteUint16(number); }
    bool put(uint32 number) noexcept { return m_sink->WriteUint32(number); }
    bool put(uint64 number) noexcept;
    bool put(std::string_view bytes) noexcept; // length and bytes
    bool put(const qorVariant& value) noexcept;
    bool put_elements(IQORVariantList* list) noexcept;
    bool put_elements(IQORAttributeSet* set) noexcept;
    bool put_elements(IQORAttributeSetDelta* delta) noexcept;

private:
    IQORDataSink* m_sink;
};

// Reads from a source. Each operation returns false, with the last error, if the source fails or holds something else.
class stream_reader {
public:
    explicit stream_reader(IQORDataSource* source) noexcept : m_source(source) {}

    bool begin(stream_form form) noexcept;
    bool get(uint16& number) noexcept { return m_source->ReadUint16(number); }
    bool get(uint32& number) noexcept { return m_source->ReadUint32(number); }
    bool get(uint64& number) noexcept;
    bool get(std::string& bytes) noexcept;
    bool get(bool& flag) noexcept;
    // A kind that a value can have.
    bool get(qorVariantKind& kind) noexcept;
    // Read into a value or a container that is empty.
    bool get(qorVariant& value, uint32 level) noexcept;
    bool get_elements(IQORVariantList* list) noexcept;
    bool get_elements(IQORAttributeSet* set) noexcept;
    // Reads changes and passes each of them to `add`, which returns whether it fits.
    template <class ADD>
    bool get_changes(ADD add) noexcept {
        uint32 count = 0;
        if (!get(count))
            return false;
        for (; count != 0; --count) {
            qorAttributeChange change{};
            std::string name;
            if (!get(name) || !get(change.was) || (change.was && !get(change.before, 1)) || !get(change.is) ||
                (change.is && !get(change.after, 1)))
                return false;
            change.name = name;
            if (!(change.was || change.is))
                return stream_fault("a change without a value");
            if (!add(std::move(change)))
                return stream_fault("a name twice");
        }
        return true;
    }

private:
    // Reads a value that is neither a list nor a set.
    bool get_scalar(qorVariantKind kind, qorVariant& value) noexcept;

    IQORDataSource* m_source;
};

// Reads the changes of a delta, one of the framework's own; it is unchanged on failure.
bool read_changes(stream_reader& stream, IQORAttributeSetDelta* delta) noexcept;

} // namespace qor::container
