// Which parts of a space of 2^64 places are taken. docs/containers.md has examples.
#pragma once

#include "qor/system/Interface.h"
#include "qor/system/Memory.h"
#include "qor/system/template/Owned.h"

#include <optional>

// A range of places. Both ends belong to it, so that the whole space is {0, 2^64 - 1}. There is no empty range.
struct qorBlockRange {
    uint64 first = 0; // the lowest place
    uint64 last = 0;  // the highest place

    friend constexpr bool operator==(const qorBlockRange&, const qorBlockRange&) noexcept = default;
};

// A set of places, kept as ranges that neither overlap nor touch. Many ranges take about 18 bytes each. Looking up a
// place takes time in proportion to the logarithm of the number of ranges; changes and searches for gaps also to its
// square root, with a small factor.
//
// Not thread-safe; several threads may read a tracker that none changes. If memory runs out, the process ends with a
// report. An operation with first > last does nothing and returns false or 0.
class IQORBlockTracker64 : public IQORInterface {
public:
    // The number of ranges, neighbours counting as one.
    virtual uint64 GetCount() noexcept = 0;

    // Takes places, whether some of them are taken already or not. Returns whether any was free.
    virtual bool Add(uint64 first, uint64 last) noexcept = 0;
    // Takes places that are all free. Returns false and changes nothing if one is taken.
    virtual bool AddNew(uint64 first, uint64 last) noexcept = 0;
    // Frees places. Returns whether any was taken.
    virtual bool Remove(uint64 first, uint64 last) noexcept = 0;
    virtual void Empty() noexcept = 0;

    // Whether all of these places are taken, and whether any is.
    virtual bool AreTaken(uint64 first, uint64 last) noexcept = 0;
    virtual bool AnyTaken(uint64 first, uint64 last) noexcept = 0;

    // Finds the lowest place at or behind `from` where `size` places in a row are free. Returns false if no such place
    // is left, or if size is 0; *first is then unchanged.
    virtual bool FindGap(uint64 size, uint64 from, uint64* first) noexcept = 0;

    // Gets the ranges that end at or behind `from`, in ascending order, at most `room`, and returns their number. A
    // walk continues with from = the last one's end + 1; so the tracker may change meanwhile, and each call gives what
    // is there then.
    virtual uint64 GetRanges(uint64 from, qorBlockRange* ranges, uint64 room) noexcept = 0;

    // Takes, or frees, all places that are taken in another tracker, which may be this one.
    virtual void Merge(IQORBlockTracker64* other) noexcept = 0;
    virtual void Subtract(IQORBlockTracker64* other) noexcept = 0;

    // Becomes a copy of another tracker, or of itself; whether both have the same places taken; and a hash that is
    // equal for equal trackers, within one process.
    virtual bool Copy(IQORBlockTracker64* other) noexcept = 0;
    virtual bool IsEqual(IQORBlockTracker64* other) noexcept = 0;
    virtual uint64 GetHash() noexcept = 0;

    // Stream form (docs/stream-form.md). Read replaces the content, and leaves it unchanged on failure.
    virtual bool Write(IQORDataSink* sink) noexcept = 0;
    [[nodiscard]] virtual bool Read(IQORDataSource* source) noexcept = 0;

    // The lowest gap, or nothing.
    std::optional<uint64> FindGap(uint64 size, uint64 from = 0) noexcept {
        uint64 first = 0;
        return FindGap(size, from, &first) ? std::optional(first) : std::nullopt;
    }
    // Finds the lowest gap and takes it.
    std::optional<uint64> TakeGap(uint64 size, uint64 from = 0) noexcept {
        const std::optional<uint64> first = FindGap(size, from);
        if (first)
            Add(*first, *first + (size - 1));
        return first;
    }

    // For range-for, in ascending order. The loop may change the tracker: a range that begins behind the ones fetched
    // already, at most 64, is seen as it is then.
    class iterator {
    public:
        using value_type = qorBlockRange;       // what it stands on
        using difference_type = std::ptrdiff_t; // as iterators need it

        // Stands on the first of the ranges, which it fetches.
        explicit iterator(IQORBlockTracker64* tracker) noexcept : m_tracker(tracker) { fetch(0); }
        // The current range.
        const qorBlockRange& operator*() const noexcept { return m_ranges[m_at]; }
        const qorBlockRange* operator->() const noexcept { return &m_ranges[m_at]; }
        // Goes on to the next one.
        iterator& operator++() noexcept {
            const uint64 last = m_ranges[m_at].last;
            if (++m_at == m_count) {
                if (last != ~uint64{0})
                    fetch(last + 1);
                else
                    m_count = m_at = 0;
            }
            return *this;
        }
        void operator++(int) noexcept { ++*this; }
        // Whether there is no further one.
        bool operator==(std::default_sentinel_t) const noexcept { return m_count == 0; }

    private:
        static constexpr uint64 room = 64;

        void fetch(uint64 from) noexcept {
            m_at = 0;
            m_count = m_tracker->GetRanges(from, m_ranges, room);
        }

        IQORBlockTracker64* m_tracker;
        uint64 m_at = 0;
        uint64 m_count = 0;
        qorBlockRange m_ranges[room];
    };
    // The beginning and the end of a walk.
    iterator begin() noexcept { return iterator(this); }
    std::default_sentinel_t end() noexcept { return {}; }

protected:
    ~IQORBlockTracker64() = default;
};

// Creates an empty tracker, with a reference for the caller. Throws std::bad_alloc.
inline void create_IQORBlockTracker64(IQORBlockTracker64** out) {
    qor::glue::create_IQORBlockTracker64(out);
    qor::glue::or_throw(*out);
}

// The tracker as a value: `qorBlockTracker64 taken; taken->Add(0, 99); for (auto [first, last] : taken) ...`
using qorBlockTracker64 = zetOwned<IQORBlockTracker64, create_IQORBlockTracker64>;
