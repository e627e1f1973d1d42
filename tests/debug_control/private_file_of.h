// For files of logins, which are not used if others may read them.
#pragma once

#include "login/private_file.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

namespace qor::test {

// Creates a file in a test's folder that only its owner can access, and returns its path.
inline std::string private_file(const temp_folder& folder, const char* name, const std::string& text) {
    std::string reason;
    EXPECT_TRUE(control::write_private_file(folder / name, text, reason)) << reason;
    return folder / name;
}

} // namespace qor::test
