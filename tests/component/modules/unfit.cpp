// Modules that were compiled against another framework. MODULE_KIND says in what it differs. None of their code may
// run.
#include "qor/glue/module.h"
#include "qor/qor.h"

#include <cstdio>

namespace {

constexpr int other_version = 1, longer_table = 2, missing_row = 3, other_row = 4, other_layout = 5;

struct early {
    early() {
        if (std::FILE* const file = std::fopen("ran." MODULE_NAME, "w"))
            std::fclose(file);
    }
} s_early;

consteval auto describe() {
    auto made = qor::glue::describe_module(MODULE_NAME, "1.0", MODULE_KIND == other_version ? "4.0.0" : "3.9.9",
                                           "test.unfit.x");
    if (MODULE_KIND == longer_table)
        ++made.head.table_length;
    if (MODULE_KIND == missing_row) // what no library has: one of the free numbers
        made.rows[4].number = 5;
    if (MODULE_KIND == other_row)
        ++made.rows[10].form;
    if (MODULE_KIND == other_layout)
        ++made.head.layout;
    return made;
}

[[gnu::section(QOR_MODULE_SECTION)]] constinit const auto description = describe();
constinit const qor::glue::module_table table = {&description.head, nullptr, nullptr};

} // namespace

extern "C" QOR_EXPORTED const qor::glue::module_table*
glue_module_point(const qor::glue::binding_table* library) noexcept {
    return qor::glue::bind_module(library) ? &table : nullptr;
}
