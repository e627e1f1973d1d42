// Writes the page and the exports of a made profile: make_outputs KIND FOLDER [anonymous]
#include "made_profiles.h"

#include "qor-heap/export/exports.h"
#include "qor-heap/page/page.h"

#include "qor/qor.h"

#include <cstdio>
#include <cstring>
#include <fstream>

namespace {

using namespace qor;

void write(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary).write(text.data(), static_cast<std::streamsize>(text.size()));
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 3)
        return 2;
    const std::string kind = argv[1], folder = std::string(argv[2]) + '/';
    const bool is_anonymous = argc > 3;
    test::made_profile made, earlier;
    const bool is_comparison = kind.find("-compared") != std::string::npos;
    if (kind.rfind("shop", 0) == 0) {
        test::make_shop(made);
        test::make_earlier_shop(earlier);
    } else if (kind.rfind("large", 0) == 0) {
        test::make_large(made, kind == "larger" ? 150'000 : 100'000, 0);
        test::make_large(earlier, 50'000, 3);
    } else if (kind == "random-names") {
        test::make_random_names(made, 20'000);
    } else if (kind == "library-code") {
        test::make_library_code(made);
    } else if (kind == "hostile") {
        test::make_hostile(made);
    } else if (kind != "empty") {
        return 2;
    }
    const heap_tool::named_profile now(made.profile, made.symbols, is_anonymous);
    const heap_tool::named_profile before(earlier.profile, earlier.symbols, is_anonymous);
    const auto to_file = [&](const char* name, auto&& make) {
        heap_tool::string_sink out;
        make(out);
        write(folder + name, out.text);
    };
    to_file("page.html",
            [&](auto& out) { heap_tool::write_page(now, is_comparison ? &before : nullptr, "qor-heap test", out); });
    to_file("all.folded", [&](auto& out) { heap_tool::export_folded(now, heap_tool::measure::live, out); });
    to_file("all.json", [&](auto& out) { heap_tool::export_json(now, "qor-heap test", out); });
    to_file("all.csv", [&](auto& out) { heap_tool::export_csv(now, out); });
    std::string reason;
    to_file("all.pb.gz", [&](auto& out) {
        heap_tool::export_pprof(now, {{"host", "h1"}, {"region", "eu"}}, "qor-heap test", out, reason);
    });
    if (!reason.empty())
        std::fprintf(stderr, "%s\n", reason.c_str());
    return reason.empty() ? 0 : 1;
}
