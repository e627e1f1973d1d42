#include "qor/qor.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace {

TEST(folder, each_has_a_tag_of_its_own) {
    std::set<std::string> tags;
    for (uint32 id = 0; id < qorFolderCount; ++id) {
        qorString tag;
        EXPECT_TRUE(qorGetFolderTagForId(static_cast<qorFolderId>(id), tag));
        EXPECT_GT(tag.Length(), 0u);
        EXPECT_TRUE(tags.insert(tag.Text()).second) << tag.Text();
    }
    qorString tag;
    EXPECT_TRUE(qorGetFolderTagForId(qorFolder_home, tag));
    EXPECT_STREQ(tag, "home");
    EXPECT_TRUE(qorGetFolderTagForId(qorFolder_qor_system_configuration, tag));
    EXPECT_STREQ(tag, "qor-system-configuration");
}

TEST(folder, another_number_is_none) {
    for (const uint32 id : {30u, 31u, 255u, 256u, 0x7fff'ffffu, 0xffff'ffffu}) {
        qorClearLastError();
        qorString text("not empty");
        EXPECT_FALSE(qorGetFolderTagForId(static_cast<qorFolderId>(id), text));
        EXPECT_STREQ(text, "");
        qorString message;
        EXPECT_EQ(qorGetLastError(message), uint32{qorError_unknown_folder});
        EXPECT_STREQ(message, ("There is no folder with the number " + std::to_string(id) + ".").c_str());
        qorClearLastError();
        text = "not empty";
        EXPECT_FALSE(qorGetFolderPath(static_cast<qorFolderId>(id), text));
        EXPECT_STREQ(text, "");
        EXPECT_EQ(qorGetLastError(message), uint32{qorError_unknown_folder});
    }
}

// Tests of the whole tool check the paths. This test checks that success keeps the last error.
TEST(folder, the_frameworks_own_are_there) {
    for (const qorFolderId id : {qorFolder_qor_executable, qorFolder_qor_library, qorFolder_qor_catalogs}) {
        qorSetLastError(qorError_timed_out);
        qorString path;
        EXPECT_TRUE(qorGetFolderPath(id, path));
        EXPECT_GT(path.Length(), 0u);
        EXPECT_NE(path[static_cast<int32>(path.Length()) - 1], '/');
        qorString message;
        EXPECT_EQ(qorGetLastError(message), uint32{qorError_timed_out});
    }
    qorClearLastError();
}

} // namespace
