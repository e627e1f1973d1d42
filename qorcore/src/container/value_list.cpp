// The list of values of one kind: numbers in one array, texts and bytes in another, with the places where they end.
#include "container/hashing.h"
#include "container/stream_form.h"
#include "container/variant.h"
#include "error/error.h"
#include "memory/allocator.h"
#include "qor/system/template/Object.h"

#include <algorithm>
#include <numeric>
#include <vector>

namespace {

constexpr char source[] = "qorcore/src/container/value_list";

using kind = qorVariantKind;

constexpr bool is_number(kind of) noexcept { return of >= kind::logical && of <= kind::time; }
constexpr bool is_text(kind of) noexcept { return of == kind::text || of == kind::bytes; }

// Converts a value to a kind if it stays the same.
bool convert(const qorVariant& value, kind to, qorVariant& out) noexcept {
    if (value.Kind() == to) {
        out = value;
        return is_number(to) || is_text(to);
    }
    if (to == kind::integer && value.AsInt64())
        out = *value.AsInt64();
    else if (to == kind::natural && value.AsUint64())
        out = *value.AsUint64();
    else if (to == kind::real && value.AsDouble())
        out = *value.AsDouble();
    return out.Kind() == to;
}

class value_list final : public qor::object<IQORValueList> {
public:
    value_list() noexcept : object("qorcore.value_list", "IQORValueList") {}

    uint32 GetCount() noexcept override { return static_cast<uint32>(m_words.size()); }
    kind GetKind() noexcept override { return m_kind; }

    bool GetAt(uint32 index, qorVariant& out) noexcept override {
        if (index >= GetCount()) {
            qor::error::set(qorError_not_found);
            return false;
        }
        out = at(index);
        return true;
    }

    const void* GetNumbers() noexcept override { return is_number(m_kind) ? m_words.data() : nullptr; }

    qorTextView GetText(uint32 index) noexcept override {
        return is_text(m_kind) && index < GetCount() ? qorTextView(text(index)) : qorTextView();
    }

    bool Append(const qorVariant& value) noexcept override { return InsertAt(GetCount(), value); }

    bool InsertAt(uint32 index, const qorVariant& value) noexcept override {
        qorVariant taken;
        const kind to = m_words.empty() ? value.Kind() : m_kind;
        if (!convert(value, to, taken))
            return refuse("IQORValueList::InsertAt");
        m_kind = to;
        index = std::min(index, GetCount());
        if (is_text(to)) {
            // A text is followed by a terminator.
            const uint64 begin = begin_of(index);
            m_bytes.insert(m_bytes.begin() + static_cast<std::ptrdiff_t>(begin), taken.m_data.bytes,
                           taken.m_data.bytes + taken.m_data.length + 1);
            for (uint32 i = index; i < GetCount(); ++i)
                m_words[i] += taken.m_data.length + 1;
            m_words.insert(m_words.begin() + index, begin + taken.m_data.length + 1);
        } else {
            m_words.insert(m_words.begin() + index, taken.m_data.natural);
        }
        return true;
    }

    bool SetAt(uint32 index, const qorVariant& value) noexcept override {
        qorVariant taken;
        if (index >= GetCount()) {
            qor::error::set(qorError_not_found);
            return false;
        }
        if (!convert(value, m_kind, taken))
            return refuse("IQORValueList::SetAt");
        if (is_number(m_kind)) {
            m_words[index] = taken.m_data.natural;
            return true;
        }
        const kind before = m_kind;
        RemoveAt(index, 1);
        m_kind = before;
        return InsertAt(index, taken);
    }

    bool AppendNumbers(kind of, const void* numbers, uint32 count) noexcept override {
        if (!is_number(of) || (!m_words.empty() && of != m_kind))
            return refuse("IQORValueList::AppendNumbers");
        if (count == 0)
            return true;
        const auto* const words = static_cast<const uint64*>(numbers);
        if (of == kind::logical && std::any_of(words, words + count, [](uint64 each) { return each > 1; }))
            return refuse("IQORValueList::AppendNumbers");
        m_kind = of;
        // They may lie in this list.
        const std::size_t before = m_words.size();
        const bool is_own = words >= m_words.data() && words < m_words.data() + before;
        const std::size_t place = is_own ? static_cast<std::size_t>(words - m_words.data()) : 0;
        m_words.resize(before + count);
        std::memcpy(m_words.data() + before, is_own ? m_words.data() + place : words, count * sizeof *words);
        return true;
    }

    void RemoveAt(uint32 index, uint32 count) noexcept override {
        const uint32 begin = std::min(index, GetCount());
        const uint32 end = begin + std::min(count, GetCount() - begin);
        if (is_text(m_kind)) {
            const uint64 from = begin_of(begin), to = begin_of(end);
            m_bytes.erase(m_bytes.begin() + static_cast<std::ptrdiff_t>(from),
                          m_bytes.begin() + static_cast<std::ptrdiff_t>(to));
            for (uint32 i = end; i < GetCount(); ++i)
                m_words[i] -= to - from;
        }
        m_words.erase(m_words.begin() + begin, m_words.begin() + end);
        if (m_words.empty())
            m_kind = kind::null;
    }

    void Empty() noexcept override {
        m_words = {};
        m_bytes = {};
        m_kind = kind::null;
    }
    void Reserve(uint32 count) noexcept override { m_words.reserve(count); }

    void Sort(bool ascending) noexcept override {
        std::vector<uint32> order(m_words.size());
        std::iota(order.begin(), order.end(), 0u);
        std::stable_sort(order.begin(), order.end(), [this, ascending](uint32 left, uint32 right) {
            const int result = compare_at(left, right);
            return ascending ? result < 0 : result > 0;
        });
        value_parts sorted;
        sorted.words.reserve(m_words.size());
        for (const uint32 each : order) {
            if (is_text(m_kind)) {
                sorted.bytes.insert(sorted.bytes.end(), text(each).begin(), text(each).end() + 1);
                sorted.words.push_back(sorted.bytes.size());
            } else {
                sorted.words.push_back(m_words[each]);
            }
        }
        m_words.swap(sorted.words);
        m_bytes.swap(sorted.bytes);
    }

    int64 Find(const qorVariant& value, uint32 start) noexcept override {
        qorVariant sought;
        if (!convert(value, m_kind, sought) || sought != value)
            return -1;
        for (uint32 i = start; i < GetCount(); ++i)
            if (is_text(m_kind) ? text(i) == std::string_view(sought.m_data.bytes, sought.m_data.length)
                                : m_words[i] == sought.m_data.natural)
                return i;
        return -1;
    }

    bool Copy(IQORValueList* other) noexcept override {
        value_parts copy;
        const kind of = other->GetKind();
        for (uint32 i = 0; i < other->GetCount(); ++i) {
            if (is_text(of)) {
                const std::string_view each = other->GetText(i);
                copy.bytes.insert(copy.bytes.end(), each.begin(), each.end() + 1);
                copy.words.push_back(copy.bytes.size());
            } else {
                copy.words.push_back(static_cast<const uint64*>(other->GetNumbers())[i]);
            }
        }
        take(of, copy);
        return true;
    }

    int Compare(IQORValueList* other) noexcept override {
        for (uint32 i = 0; i < GetCount() && i < other->GetCount(); ++i) {
            qorVariant theirs;
            other->GetAt(i, theirs);
            if (const int result = at(i).Compare(theirs))
                return result;
        }
        return qor::container::as_int(GetCount() <=> other->GetCount());
    }

    uint64 GetHash() noexcept override {
        uint64 state = qor::container::hash_number(GetCount(), qor::container::hash_key());
        for (uint32 i = 0; i < GetCount(); ++i)
            state = qor::container::mix(state ^ at(i).Hash(), qor::container::hash_multiplier);
        return state;
    }

    bool Write(IQORDataSink* sink) noexcept override {
        qor::container::stream_writer to(sink);
        if (!to.begin(qor::container::stream_form::value_list) || !to.put(static_cast<uint16>(m_kind)) ||
            !to.put(GetCount()))
            return false;
        for (uint32 i = 0; i < GetCount(); ++i)
            if (is_text(m_kind) ? !to.put(text(i)) : !to.put(m_words[i]))
                return false;
        return true;
    }

    bool Read(IQORDataSource* from) noexcept override {
        qor::container::stream_reader stream(from);
        kind of{};
        uint32 count = 0;
        if (!stream.begin(qor::container::stream_form::value_list) || !stream.get(of) || !stream.get(count))
            return false;
        if (count != 0 ? !is_number(of) && !is_text(of) : of != kind::null)
            return qor::container::stream_fault("a list whose values have no kind");
        value_parts read;
        std::string text;
        for (; count != 0; --count) {
            if (is_text(of)) {
                if (!stream.get(text))
                    return false;
                read.bytes.insert(read.bytes.end(), text.c_str(), text.c_str() + text.size() + 1);
                read.words.push_back(read.bytes.size());
            } else {
                uint64 number = 0;
                if (!stream.get(number))
                    return false;
                if (of == kind::logical && number > 1)
                    return qor::container::stream_fault("a truth value that is neither 0 nor 1");
                read.words.push_back(number);
            }
        }
        take(of, read);
        return true;
    }

private:
    struct value_parts {
        std::vector<uint64> words;
        std::vector<char> bytes;
    };

    static bool refuse(const char* operation) noexcept {
        qor::error::set(qorError_wrong_kind, {operation});
        return false;
    }

    void take(kind of, value_parts& parts) noexcept {
        m_kind = of;
        m_words.swap(parts.words);
        m_bytes.swap(parts.bytes);
    }

    uint64 begin_of(uint32 index) const noexcept { return index != 0 ? m_words[index - 1] : 0; }

    std::string_view text(uint32 index) const noexcept {
        return {m_bytes.data() + begin_of(index), static_cast<std::size_t>(m_words[index] - begin_of(index) - 1)};
    }

    int compare_at(uint32 left, uint32 right) const noexcept {
        return is_text(m_kind) ? qor::container::as_int(text(left) <=> text(right)) : at(left).Compare(at(right));
    }

    qorVariant at(uint32 index) const noexcept {
        if (m_kind == kind::text)
            return qorVariant(text(index));
        if (m_kind == kind::bytes)
            return qorVariant::Bytes(std::as_bytes(std::span(text(index))));
        qorVariant made;
        made.m_data.natural = m_words[index];
        made.m_data.kind = m_kind;
        return made;
    }

    kind m_kind = kind::null;
    std::vector<uint64> m_words; // the 64 bits of numbers; of texts, the places in m_bytes behind their terminators
    std::vector<char> m_bytes;
};

} // namespace

void qor::glue::create_IQORValueList(IQORValueList** out) noexcept {
    *out = nullptr;
    memory::make<value_list>(source, __LINE__, out);
}
