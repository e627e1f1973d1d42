// The block tracker.
#include "container/block_ranges.h"
#include "container/hashing.h"
#include "container/stream_form.h"
#include "memory/allocator.h"
#include "qor/system/template/Object.h"

#include <utility>

namespace {

using qor::container::block_ranges;

constexpr char source[] = "qorcore/src/container/block_tracker";

class block_tracker final : public qor::object<IQORBlockTracker64> {
public:
    block_tracker() noexcept : object("qorcore.block_tracker", "IQORBlockTracker64") {}

    uint64 GetCount() noexcept override { return m_ranges.count(); }

    bool Add(uint64 first, uint64 last) noexcept override { return first <= last && m_ranges.add({first, last}); }
    bool AddNew(uint64 first, uint64 last) noexcept override {
        return first <= last && !m_ranges.any_taken({first, last}) && m_ranges.add({first, last});
    }
    bool Remove(uint64 first, uint64 last) noexcept override { return first <= last && m_ranges.remove({first, last}); }
    void Empty() noexcept override { m_ranges = {}; }

    bool AreTaken(uint64 first, uint64 last) noexcept override {
        return first <= last && m_ranges.are_taken({first, last});
    }
    bool AnyTaken(uint64 first, uint64 last) noexcept override {
        return first <= last && m_ranges.any_taken({first, last});
    }

    bool FindGap(uint64 size, uint64 from, uint64* first) noexcept override {
        return size != 0 && m_ranges.find_gap(size, from, *first);
    }
    uint64 GetRanges(uint64 from, qorBlockRange* ranges, uint64 room) noexcept override {
        return m_ranges.get(from, ranges, room);
    }

    void Merge(IQORBlockTracker64* other) noexcept override {
        if (other == this)
            return;
        // A few ranges are added one by one. With many, both sequences are read in order and written anew.
        if (other->GetCount() < m_ranges.count() / 16) {
            for (const qorBlockRange& each : *other)
                m_ranges.add(each);
            return;
        }
        block_ranges merged;
        iterator own = begin(), theirs = other->begin();
        while (own != end() || theirs != end()) {
            const bool is_own = theirs == end() || (own != end() && own->first < theirs->first);
            merged.append(is_own ? *own : *theirs);
            is_own ? ++own : ++theirs;
        }
        merged.finish();
        m_ranges = std::move(merged);
    }

    void Subtract(IQORBlockTracker64* other) noexcept override {
        if (other == this)
            return Empty();
        for (const qorBlockRange& each : *other)
            m_ranges.remove(each);
    }

    bool Copy(IQORBlockTracker64* other) noexcept override {
        block_ranges copy;
        for (const qorBlockRange& each : *other)
            copy.append(each);
        copy.finish();
        m_ranges = std::move(copy);
        return true;
    }

    bool IsEqual(IQORBlockTracker64* other) noexcept override {
        if (GetCount() != other->GetCount())
            return false;
        for (iterator own = begin(), theirs = other->begin(); own != end(); ++own, ++theirs)
            if (*own != *theirs)
                return false;
        return true;
    }

    uint64 GetHash() noexcept override {
        uint64 state = qor::container::hash_number(GetCount(), qor::container::hash_key());
        for (const auto& [first, last] : *this) {
            state = qor::container::mix(state ^ first, qor::container::hash_multiplier);
            state = qor::container::mix(state ^ last, qor::container::hash_multiplier);
        }
        return state;
    }

    bool Write(IQORDataSink* sink) noexcept override {
        qor::container::stream_writer to(sink);
        if (!to.begin(qor::container::stream_form::block_tracker) || !to.put(GetCount()))
            return false;
        for (const auto& [first, last] : *this)
            if (!to.put(first) || !to.put(last))
                return false;
        return true;
    }

    bool Read(IQORDataSource* from) noexcept override {
        qor::container::stream_reader stream(from);
        uint64 count = 0;
        if (!stream.begin(qor::container::stream_form::block_tracker) || !stream.get(count))
            return false;
        block_ranges read;
        uint64 free = 0; // the lowest place where a range may begin
        for (; count != 0; --count) {
            qorBlockRange range;
            if (!stream.get(range.first) || !stream.get(range.last))
                return false;
            // Between two ranges there is a gap.
            if (range.first > range.last || range.first < free || (read.count() != 0 && free < 2))
                return qor::container::stream_fault("a range in the wrong place");
            read.append(range);
            free = range.last + 2; // 0 or 1 at the end of the space
        }
        read.finish();
        m_ranges = std::move(read);
        return true;
    }

private:
    block_ranges m_ranges;
};

} // namespace

void qor::glue::create_IQORBlockTracker64(IQORBlockTracker64** out) noexcept {
    *out = nullptr;
    memory::make<block_tracker>(source, __LINE__, out);
}
