// The framework's own modules, with an incomplete table.
#include "qor/glue/module.h"
#include "qor/qor.h"

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <filesystem>

namespace {

TEST(posix_modules, refuse_a_library_that_lacks_an_operation) {
    const qor::glue::binding_table& real = *qor::glue::table();
    qor::glue::binding_table older = real;
    older.qorTimecode_GetFrameCount = nullptr; // no module calls it
    const auto folder = std::filesystem::read_symlink("/proc/self/exe").parent_path() / "qor";
    for (const char* const name : {"qor-config.so", "qor-network.so", "qor-openssl.so", "qor-pam.so"}) {
        void* const module = dlopen((folder / name).c_str(), RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(module, nullptr) << dlerror();
        auto* const entry = reinterpret_cast<qor::glue::module_point*>(dlsym(module, "glue_module_point"));
        ASSERT_NE(entry, nullptr) << name;
        EXPECT_EQ(entry(&older), nullptr) << name;
        EXPECT_NE(entry(&real), nullptr) << name;
    }
}

} // namespace
