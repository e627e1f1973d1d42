// Access control lists of private files. Wine keeps no more of a list than what the rights of the host's file can hold,
// so the lists of these tests exist in memory only.
#include "login/access_list_windows.h"
#include "login/private_file.h"
#include "qor/glue/own_rights_windows.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include <sddl.h>

namespace {

using qor::control::allows_only_trusted;

constexpr DWORD forbidden = FILE_READ_DATA | FILE_WRITE_DATA;

class access_list : public testing::Test {
protected:
    access_list() { InitializeAcl(list(), sizeof m_bytes, ACL_REVISION_DS); }

    ACL* list() { return reinterpret_cast<ACL*>(m_bytes); }
    PSID user() { return qor::glue::sid_of(m_user); }
    bool is_private() { return allows_only_trusted(list(), forbidden, user()); }

    static std::vector<BYTE> everyone() {
        std::vector<BYTE> sid(SECURITY_MAX_SID_SIZE);
        DWORD size = static_cast<DWORD>(sid.size());
        EXPECT_TRUE(CreateWellKnownSid(WinWorldSid, nullptr, sid.data(), &size));
        sid.resize(size);
        return sid;
    }

    // Adds an entry: the head, the mask, what the form has before the account, the account, and what follows.
    void add(BYTE type, DWORD mask, std::vector<BYTE> before, std::vector<BYTE> account, std::vector<BYTE> behind = {},
             BYTE flags = 0) {
        std::vector<BYTE> entry(sizeof(ACE_HEADER));
        const auto append = [&entry](const void* bytes, std::size_t size) {
            const auto* const begin = static_cast<const BYTE*>(bytes);
            entry.insert(entry.end(), begin, begin + size);
        };
        append(&mask, sizeof mask);
        append(before.data(), before.size());
        append(account.data(), account.size());
        append(behind.data(), behind.size());
        const ACE_HEADER head{type, flags, static_cast<WORD>(entry.size())};
        std::memcpy(entry.data(), &head, sizeof head);
        ASSERT_TRUE(AddAce(list(), ACL_REVISION_DS, MAXDWORD, entry.data(), static_cast<DWORD>(entry.size())));
    }

    // What an entry for objects has before the account: flags, and an identifier for each.
    static std::vector<BYTE> objects(DWORD flags) {
        std::vector<BYTE> bytes(sizeof flags);
        std::memcpy(bytes.data(), &flags, sizeof flags);
        for (const DWORD flag : {ACE_OBJECT_TYPE_PRESENT, ACE_INHERITED_OBJECT_TYPE_PRESENT})
            if ((flags & flag) != 0)
                bytes.insert(bytes.end(), sizeof(GUID), 0xa5);
        return bytes;
    }

    std::vector<BYTE> own() {
        const auto* const sid = static_cast<const BYTE*>(user());
        return {sid, sid + GetLengthSid(user())};
    }

    const std::vector<unsigned char> m_user = qor::glue::current_user();

private:
    alignas(8) BYTE m_bytes[1024] = {};
};

} // namespace

TEST_F(access_list, that_is_missing_lets_everybody_in) {
    EXPECT_FALSE(allows_only_trusted(nullptr, forbidden, user()));
    EXPECT_TRUE(is_private()); // an empty one lets nobody in
}

TEST_F(access_list, for_the_user_and_the_system_is_private) {
    add(ACCESS_ALLOWED_ACE_TYPE, GENERIC_ALL, {}, own());
    add(ACCESS_ALLOWED_CALLBACK_ACE_TYPE, forbidden, {}, own(), {'a', 'r', 't', 'x'});
    add(ACCESS_ALLOWED_OBJECT_ACE_TYPE, forbidden, objects(ACE_OBJECT_TYPE_PRESENT), own());
    EXPECT_TRUE(is_private());
}

TEST_F(access_list, for_another_account_is_not) {
    add(ACCESS_ALLOWED_ACE_TYPE, FILE_READ_DATA, {}, everyone());
    EXPECT_FALSE(is_private());
}

TEST_F(access_list, with_a_condition_for_another_account_is_not) {
    add(ACCESS_ALLOWED_CALLBACK_ACE_TYPE, FILE_READ_DATA, {}, everyone(), {'a', 'r', 't', 'x', 0, 0, 0, 0});
    EXPECT_FALSE(is_private());
}

TEST_F(access_list, for_objects_for_another_account_is_not) {
    for (const BYTE type : {ACCESS_ALLOWED_OBJECT_ACE_TYPE, ACCESS_ALLOWED_CALLBACK_OBJECT_ACE_TYPE})
        for (DWORD flags = 0; flags < 4; ++flags) {
            InitializeAcl(list(), 1024, ACL_REVISION_DS);
            add(type, FILE_WRITE_DATA, objects(flags), everyone());
            EXPECT_FALSE(is_private()) << int{type} << ' ' << flags;
            InitializeAcl(list(), 1024, ACL_REVISION_DS);
            add(type, FILE_WRITE_DATA, objects(flags), own());
            EXPECT_TRUE(is_private()) << int{type} << ' ' << flags;
        }
}

TEST_F(access_list, with_other_rights_or_none_is_private) {
    add(ACCESS_ALLOWED_ACE_TYPE, FILE_READ_ATTRIBUTES, {}, everyone());
    add(ACCESS_DENIED_ACE_TYPE, forbidden, {}, everyone());
    add(ACCESS_DENIED_CALLBACK_ACE_TYPE, forbidden, {}, everyone(), {'a', 'r', 't', 'x'});
    add(ACCESS_ALLOWED_ACE_TYPE, forbidden, {}, everyone(), {}, INHERIT_ONLY_ACE); // for what the folder will hold
    EXPECT_TRUE(is_private());
}

TEST_F(access_list, of_an_unknown_form_is_not) {
    add(0x77, forbidden, {}, own());
    EXPECT_FALSE(is_private());
}

TEST_F(access_list, whose_account_is_cut_off_is_not) {
    std::vector<BYTE> cut = own();
    cut.resize(cut.size() - 4);
    add(ACCESS_ALLOWED_ACE_TYPE, forbidden, {}, cut);
    EXPECT_FALSE(is_private());
}

// Another user could make the file of the lock first and never release it.
TEST(private_file_locks, of_others_are_refused) {
    const qor::test::temp_folder folder;
    const std::string path = folder / "accounts";
    folder.file("accounts.lock", "");
    const std::string lock = path + ".lock";
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    ASSERT_TRUE(ConvertStringSecurityDescriptorToSecurityDescriptorW(L"D:P(A;;GA;;;WD)", SDDL_REVISION_1, &descriptor,
                                                                     nullptr));
    EXPECT_TRUE(
        SetFileSecurityW(std::wstring(lock.begin(), lock.end()).c_str(), DACL_SECURITY_INFORMATION, descriptor));
    LocalFree(descriptor);
    std::string reason;
    {
        const qor::control::private_file_lock refused(path);
        EXPECT_FALSE(refused.is_held(reason));
        EXPECT_EQ(reason.rfind(lock + ": ", 0), 0u) << reason;
    }
    const qor::control::private_file_lock held(path);
    EXPECT_TRUE(held.is_held(reason)) << reason;
}
