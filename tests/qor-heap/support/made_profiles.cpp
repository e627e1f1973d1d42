#include "made_profiles.h"

#include <random>

namespace qor::test {

using heap::profile;

uint32 made_profile::module(const std::string& path, const std::string& build_id, uint64 base, uint64 size) {
    profile.modules.push_back({path, build_id, base, base, base + size});
    return static_cast<uint32>(profile.modules.size() - 1);
}

uint32 made_profile::frame(uint32 module, uint64 address, std::initializer_list<symbol> innermost_first) {
    profile.frames.push_back({module, address});
    symbols.emplace_back(innermost_first);
    return static_cast<uint32>(profile.frames.size() - 1);
}

uint32 made_profile::node(uint32 parent, uint32 frame) {
    profile.nodes.push_back({parent, frame});
    return static_cast<uint32>(profile.nodes.size() - 1);
}

uint32 made_profile::text(const std::string& text) {
    profile.texts.push_back(text);
    return static_cast<uint32>(profile.texts.size() - 1);
}

profile::place& made_profile::place(uint32 node, counts live, counts at_peak, counts allocated, counts temporary) {
    profile::place& made = profile.places.emplace_back();
    made.node = node;
    made.live = live;
    made.at_peak = at_peak;
    made.allocated = allocated;
    made.temporary = temporary;
    return made;
}

void made_profile::sum_up() {
    for (const profile::place& each : profile.places) {
        profile.totals.live += each.live;
        profile.totals.peak.live += each.at_peak;
        profile.totals.allocated += each.allocated;
        profile.totals.temporary += each.temporary;
    }
}

namespace {

// Both runs of the shop, up to where they differ.
struct shop_nodes {
    uint32 main, parse, put, unnamed, outside;
};

shop_nodes make_shop_stacks(made_profile& into) {
    const uint32 shop = into.module("/opt/shop/bin/shop", "\x01\xab\xcd\xef", 0x550000000000, 0x5000);
    const uint32 store = into.module("/usr/lib/libstore.so", "\x99\x88", 0x7f0000000000, 0x9000);
    const uint32 main = into.node(0, into.frame(shop, 0x1010, {{"main", "/src/shop/main.cpp", 12}}));
    const uint32 serve =
        into.node(main, into.frame(shop, 0x1100, {{"serve(request const&)", "/src/shop/serve.cpp", 40}}));
    const uint32 parse = into.frame(
        shop, 0x1200, {{"copy_text", "/src/shop/text.cpp", 5}, {"parse(char const*)", "/src/shop/parse.cpp", 88}});
    const uint32 put = into.node(serve, into.frame(store, 0x500, {{"store_put", "/src/store/store.c", 31}}));
    return {main, into.node(serve, parse), put, into.node(put, into.frame(store, 0x900)),
            into.node(main, into.frame(0, 0x7f00))};
}

void make_process(made_profile& into, uint64 pid, uint64 start) {
    heap::profile::process& process = into.profile.processes.emplace_back();
    process.pid = pid;
    process.start_ns = start;
    process.path = "/opt/shop/bin/shop";
    process.log = "/home/ann/shop.mtrace";
    into.profile.has_stacks = into.profile.has_times = true;
}

} // namespace

void make_shop(made_profile& into) {
    const shop_nodes nodes = make_shop_stacks(into);
    make_process(into, 4711, 1'790'000'000'000'000'000);
    into.place(nodes.parse, {1000, 10}, {4000, 40}, {9000, 90}, {500, 5});
    profile::place& item = into.place(nodes.put, {6000, 3}, {6000, 3}, {6000, 3}, {});
    item.type_name = into.text("shop.item");
    item.type = 1;
    item.growth = profile::growth::growing;
    into.place(nodes.put, {}, {2000, 2}, {2000, 2}, {});
    into.place(nodes.unnamed, {3000, 1}, {3000, 1}, {8000, 4}, {5000, 3}).growth = profile::growth::once;
    into.place(nodes.outside, {}, {}, {100, 1}, {100, 1});
    into.place(0, {24, 1}, {24, 1}, {24, 1}, {}).caller = into.text("/opt/shop/bin/shop:[0x4242]");
    into.sum_up();
    into.profile.timeline = {{0, 1, {24, 1}},
                             {1'000'000'000, 50, {8000, 20}},
                             {2'500'000'000, 120, {15024, 47}},
                             {4'000'000'000, 150, {10024, 15}}};
    into.profile.totals.peak.time_ns = 2'500'000'000;
    into.profile.totals.peak.records = 120;
    into.profile.totals.records = 187;
    into.profile.totals.bad_frees = 2;
}

void make_earlier_shop(made_profile& into) {
    const shop_nodes nodes = make_shop_stacks(into);
    make_process(into, 4000, 1'780'000'000'000'000'000);
    into.place(nodes.parse, {1500, 15}, {4000, 40}, {9000, 90}, {500, 5});
    into.place(nodes.put, {2000, 1}, {2000, 1}, {2000, 1}, {}).type_name = into.text("shop.item");
    const uint32 gone = into.frame(1, 0x1900, {{"old_index(int)", "/src/shop/index.cpp", 3}});
    into.place(into.node(nodes.main, gone), {700, 7}, {700, 7}, {700, 7}, {});
    into.sum_up();
    into.profile.timeline = {{0, 1, {700, 7}}, {1'500'000'000, 60, {6700, 48}}, {3'000'000'000, 90, {4200, 23}}};
    into.profile.totals.records = 100;
}

void make_large(made_profile& into, uint32 places, uint32 growth) {
    make_process(into, 1, 1'790'000'000'000'000'000);
    const auto number = [](uint32 value) { return std::to_string(value); };
    std::vector<uint32> modules;
    for (uint32 i = 0; i < 12; ++i)
        modules.push_back(
            into.module("/usr/lib/large/libpart_" + number(i) + ".so", "\x10" + number(i), uint64{i} << 32, 1U << 30));
    // 10 workers call 100 stages in 1,000 steps; below them, 11 further functions for each step.
    std::vector<uint32> above(1000);
    const uint32 main = into.node(0, into.frame(modules[0], 1, {{"main", "/src/large/main.cpp", 1}}));
    std::vector<uint32> workers, stages;
    for (uint32 i = 0; i < 10; ++i)
        workers.push_back(into.node(
            main, into.frame(modules[0], 100 + i,
                             {{into.keep("worker_" + number(i) + "::run()"), "/src/large/worker.cpp", i + 1}})));
    for (uint32 i = 0; i < 100; ++i)
        stages.push_back(into.node(workers[i % 10],
                                   into.frame(modules[1], 200 + i,
                                              {{into.keep("large::stage<" + number(i) + ">::enter(large::context&)"),
                                                "/src/large/stage.h", 40}})));
    for (uint32 i = 0; i < 1000; ++i) {
        uint32 node = stages[i % 100];
        for (uint32 depth = 0; depth < 12; ++depth)
            node =
                into.node(node, into.frame(modules[depth], 1000 + i,
                                           {{into.keep("large::detail::step_" + number(i) +
                                                       "<std::vector<std::pair<int, std::string>, "
                                                       "std::allocator<std::pair<int, std::string>>>>::level_" +
                                                       number(depth) + "(unsigned long)"),
                                             into.keep("/src/large/steps/part_" + number(i) + ".cpp"), depth + 10}}));
        above[i] = node;
    }
    for (uint32 i = 0; i < places; ++i) {
        const uint32 leaf = into.frame(modules[i % 12], 1'000'000 + 16 * i,
                                       {{into.keep("large::leaf_" + number(i % 20000) + "::allocate(unsigned long)"),
                                         into.keep("/src/large/leaves/leaf_" + number(i % 5000) + ".cpp"), i + 1}});
        const uint64 live = 16 * (i % 500 + 1) + growth;
        const uint64 all = live * (i % 13 + 1);
        into.place(into.node(above[i % 1000], leaf), {live, i % 7 + 1}, {live + i % 3, i % 7 + 1}, {all, i % 29 + 7},
                   {i % 5 == 0 ? 16U : 0U, i % 5 == 0 ? 1U : 0U});
    }
    into.sum_up();
    for (uint64 i = 0; i < profile::most_moments; ++i)
        into.profile.timeline.push_back(
            {i * 2'000'000, i * 250, {into.profile.totals.live.bytes * (i + 1) / profile::most_moments, i + 1}});
    into.profile.totals.peak = into.profile.timeline.back();
    into.profile.totals.records = 1'024'000;
}

void make_random_names(made_profile& into, uint32 places) {
    make_process(into, 9, 1'790'000'000'000'000'000);
    std::mt19937 random(1);
    for (uint32 i = 0; i < places; ++i) {
        std::string name(900, ' ');
        for (char& each : name)
            each = static_cast<char>('!' + random() % 90);
        const uint32 frame = into.frame(0, i + 1, {{into.keep(std::move(name)), "", 0}});
        into.place(into.node(0, frame), {i + 1, 1}, {i + 1, 1}, {i + 1, 1}, {});
    }
    into.sum_up();
}

void make_library_code(made_profile& into) {
    make_process(into, 7, 1'790'000'000'000'000'000);
    const uint32 app = into.module("/opt/app/app", "\x05", 0x1000, 0x1000);
    const uint32 library = into.module("/usr/lib/libstdc++.so.6", "\x06", 0x9000, 0x1000);
    const uint32 fill = into.node(
        0, into.frame(app, 1,
                      {{"std::__new_allocator<int>::allocate(unsigned long, void const*)",
                        "/usr/include/c++/12/bits/new_allocator.h", 137},
                       {"std::vector<int>::reserve(unsigned long)", "/usr/include/c++/12/bits/vector.tcc", 79},
                       {"app::fill(int)", "/src/app/fill.cpp", 7}}));
    const uint32 append = into.node(fill, into.frame(library, 2, {{"std::string::append(char const*)", "", 0}}));
    into.place(fill, {600, 6}, {600, 6}, {600, 6}, {});
    into.place(append, {300, 3}, {300, 3}, {300, 3}, {});
    into.place(into.node(0, into.frame(library, 3, {{"std::locale::init()", "", 0}})), {100, 1}, {100, 1}, {100, 1},
               {});
    into.sum_up();
}

void make_hostile(made_profile& into) {
    make_process(into, 666, 1'790'000'000'000'000'000);
    into.profile.processes.front().path = "/tmp/\"><script>document.title='broken'</script>\x1b[2J";
    into.profile.processes.front().log = "</title><script>document.title='broken'</script>";
    const uint32 module = into.module("/tmp/<b>lib\r\n=x\x1b]0;owned\x07.so", std::string("\0\xff", 2), 4096, 4096);
    const std::string names[] = {
        "</script><script>document.title='broken'</script>",
        "<img src=x onerror=document.title='broken'>",
        "=cmd|' /C calc'!A0",
        "+1+1",
        "-[Text make]",
        "@SUM(1)",
        "\t=1",
        "\r=2",
        "\xef\xbc\x9d"
        "1",
        "\x1b]0;owned\x07\x1b[31m",
        "\xe2\x80\xae"
        "txt.exe",
        "\xff\xfe\xc0\xaf\xed\xa0\x80",
        "one;two 99\nthree 1000",
        "\"quoted\", 'and' \\back\\slashed",
        "{{data}} {1} $& %s",
        "__proto__",
        "constructor",
        "toString",
        std::string(100'000, 'x'),
        "",
    };
    uint32 address = 16;
    for (const std::string& name : names) {
        const uint32 frame = into.frame(module, address += 16, {{into.keep(name), into.keep("/src/" + name), 7}});
        profile::place& place = into.place(into.node(0, frame), {address, 1}, {address, 1}, {address, 1}, {});
        place.type_name = into.text(name);
        place.caller = into.text("/home/ann/" + name);
    }
    into.sum_up();
    into.profile.timeline = {{0, 1, {1, 1}}};
}

} // namespace qor::test
