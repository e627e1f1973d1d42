// The seam to the system's files.
#include "platform/raw_file.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

namespace {

using qor::platform::raw_file;

TEST(raw_file, that_was_cut_goes_on_at_its_end) {
    const qor::test::temp_folder folder;
    const std::string path = folder / "file";
    for (const auto how : {raw_file::access::create, raw_file::access::truncate}) {
        raw_file file;
        ASSERT_EQ(file.open(path.c_str(), how), 0);
        ASSERT_EQ(file.write("one\ntwo\n", 8), 0);
        file.cut(4);
        ASSERT_EQ(file.write("three\n", 6), 0);
        ASSERT_EQ(file.close(), 0);
        EXPECT_EQ(qor::test::read_file(path), "one\nthree\n");
    }
}

} // namespace
