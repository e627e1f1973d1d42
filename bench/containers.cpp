// Compares the maps with Boost's flat hash table, through the interface and without, and measures the block tracker.
//
//   containers_bench [--brief]
//
// Prints nanoseconds for an operation: medians of interleaved rounds. The exit code is 1 if an operation through the
// bulk calls takes more than 1.3 times as long as Boost's, or if a range of the tracker takes more than 32 bytes. A
// brief run uses fewer entries and never fails because of a time, since other programs influence it too much.
#include "qor/qor.h"

#include <algorithm>
#include <boost/unordered/unordered_flat_map.hpp>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <malloc.h>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr double limit = 1.3;
constexpr double most_bytes = 32;

bool is_brief = false;
bool has_failed = false;

// Keeps the compiler from dropping a result.
void use(uint64 value) { asm volatile("" ::"r"(value) : "memory"); }

struct way {
    const char* name;
    std::function<void()> run; // one round over all entries
    std::vector<double> rounds{};

    double median() {
        std::nth_element(rounds.begin(), rounds.begin() + rounds.size() / 2, rounds.end());
        return rounds[rounds.size() / 2];
    }
};

// Measures the ways in turn; the first one is the peer, the last one has the limit.
void compare(const char* what, uint64 operations, int rounds, std::vector<way> ways) {
    for (int round = 0; round < rounds; ++round) {
        for (way& each : ways) {
            const auto begin = std::chrono::steady_clock::now();
            each.run();
            const std::chrono::duration<double, std::nano> time = std::chrono::steady_clock::now() - begin;
            each.rounds.push_back(time.count() / static_cast<double>(operations));
        }
    }
    std::printf("%-28s", what);
    const double peer = ways[0].median();
    for (way& each : ways)
        std::printf("  %s %6.1f (%.2f)", each.name, each.median(), each.median() / peer);
    std::printf("\n");
    if (!is_brief && ways.back().median() > limit * peer)
        has_failed = true;
}

template <class MAP, class PEER, class KEY, class KEPT>
void measure_map(const char* name, uint64 count, const std::vector<KEY>& keys, const std::vector<KEY>& hits,
                 const std::vector<KEPT>& kept) {
    const uint64 passes = std::max<uint64>(1, (is_brief ? 20'000 : 1'000'000) / count); // small maps, many times
    const int rounds = is_brief ? 1 : count > 100'000 ? 3 : 9;
    std::vector<uint32> values(count), out(count);
    for (uint64 i = 0; i < count; ++i)
        values[i] = static_cast<uint32>(i);

    char what[100];
    std::snprintf(what, sizeof what, "%s, %llu: insert", name, count);
    compare(what, count * passes, rounds,
            {{"boost",
              [&] {
                  for (uint64 pass = 0; pass < passes; ++pass) {
                      PEER map;
                      for (uint64 i = 0; i < count; ++i)
                          map.emplace(kept[i], values[i]);
                      use(map.size());
                  }
              }},
             {"single",
              [&] {
                  for (uint64 pass = 0; pass < passes; ++pass) {
                      MAP map;
                      for (uint64 i = 0; i < count; ++i)
                          map->Set(keys[i], values[i]);
                      use(map->GetCount());
                  }
              }},
             {"bulk", [&] {
                  for (uint64 pass = 0; pass < passes; ++pass) {
                      MAP map;
                      map->SetMany(keys.data(), values.data(), count);
                      use(map->GetCount());
                  }
              }}});

    PEER peer;
    MAP map;
    for (uint64 i = 0; i < count; ++i)
        peer.emplace(kept[i], values[i]);
    map->SetMany(keys.data(), values.data(), count);
    std::vector<KEPT> kept_hits;
    for (const KEY& each : hits)
        kept_hits.emplace_back(each);
    std::snprintf(what, sizeof what, "%s, %llu: find", name, count);
    compare(what, count * passes, rounds,
            {{"boost",
              [&] {
                  for (uint64 pass = 0; pass < passes; ++pass)
                      for (uint64 i = 0; i < count; ++i)
                          out[i] = peer.find(kept_hits[i])->second;
                  use(out[count / 2]);
              }},
             {"single",
              [&] {
                  for (uint64 pass = 0; pass < passes; ++pass)
                      for (uint64 i = 0; i < count; ++i)
                          map->Get(hits[i], &out[i]);
                  use(out[count / 2]);
              }},
             {"bulk", [&] {
                  for (uint64 pass = 0; pass < passes; ++pass)
                      map->GetMany(hits.data(), out.data(), nullptr, count);
                  use(out[count / 2]);
              }}});

    std::snprintf(what, sizeof what, "%s, %llu: walk", name, count);
    compare(what, count * passes, rounds,
            {{"boost",
              [&] {
                  uint64 sum = 0;
                  for (uint64 pass = 0; pass < passes; ++pass)
                      for (const auto& [key, value] : peer)
                          sum += value;
                  use(sum);
              }},
             {"range-for", [&] {
                  uint64 sum = 0;
                  for (uint64 pass = 0; pass < passes; ++pass)
                      for (const auto& [key, value] : map)
                          sum += value;
                  use(sum);
              }}});
}

void measure_maps(uint64 count) {
    std::mt19937_64 random(1);
    std::vector<uint32> numbers(count);
    for (uint64 i = 0; i < count; ++i)
        numbers[i] = static_cast<uint32>(i * 2654435761u); // all different
    std::shuffle(numbers.begin(), numbers.end(), random);
    std::vector<uint32> hits(numbers);
    std::shuffle(hits.begin(), hits.end(), random);
    measure_map<qorMapU32ToU32, boost::unordered_flat_map<uint32, uint32>>("u32 to u32", count, numbers, hits, numbers);

    std::vector<std::string> texts;
    for (const uint32 each : numbers)
        texts.push_back("/some/folder/" + std::to_string(each));
    std::vector<qorTextView> views(texts.begin(), texts.end()), text_hits(views);
    std::shuffle(text_hits.begin(), text_hits.end(), random);
    measure_map<qorMapStringToU32, boost::unordered_flat_map<std::string, uint32>>("string to u32", count, views,
                                                                                   text_hits, texts);
}

void measure_tracker(uint64 count) {
    std::mt19937_64 random(1);
    std::vector<uint64> places(count);
    for (uint64 i = 0; i < count; ++i)
        places[i] = i * 16;
    std::shuffle(places.begin(), places.end(), random);
    for (const bool is_sorted : {false, true}) {
        if (is_sorted)
            std::sort(places.begin(), places.end());
        const std::size_t before = mallinfo2().uordblks + mallinfo2().hblkhd;
        qorBlockTracker64 tracker;
        const auto begin = std::chrono::steady_clock::now();
        for (const uint64 each : places)
            tracker->Add(each, each + 7);
        const std::chrono::duration<double, std::nano> added = std::chrono::steady_clock::now() - begin;
        const double bytes =
            static_cast<double>(mallinfo2().uordblks + mallinfo2().hblkhd - before) / static_cast<double>(count);
        std::printf("tracker, %llu ranges, %s: add %.0f ns, %.1f bytes each\n", count,
                    is_sorted ? "in order" : "in any order", added.count() / static_cast<double>(count), bytes);
        if (bytes > most_bytes)
            has_failed = true;

        const uint64 tries = is_brief ? 100 : 100'000;
        const auto found = std::chrono::steady_clock::now();
        for (uint64 i = 0; i < tries; ++i)
            use(*tracker->FindGap(9)); // behind all ranges
        const std::chrono::duration<double, std::nano> gap = std::chrono::steady_clock::now() - found;
        const auto removing = std::chrono::steady_clock::now();
        for (uint64 i = 0; i < tries; ++i) {
            const uint64 place = random() % (count - 1) * 16;
            tracker->Remove(place, place + 7);
            tracker->Add(place, place + 7);
        }
        const std::chrono::duration<double, std::nano> changed = std::chrono::steady_clock::now() - removing;
        std::printf("tracker, find the last gap %.0f ns, remove and add %.0f ns\n",
                    gap.count() / static_cast<double>(tries), changed.count() / static_cast<double>(tries));
    }
}

} // namespace

int main(int argc, char** argv) {
    is_brief = argc > 1 && std::strcmp(argv[1], "--brief") == 0;
    std::printf("ns for an operation, and its share of Boost's:\n");
    for (const uint64 count : {uint64{1000}, uint64{is_brief ? 10'000u : 10'000'000u}})
        measure_maps(count);
    measure_tracker(is_brief ? 20'000 : 10'000'000);
    return has_failed ? 1 : 0;
}
