// Passwords in two stored forms: one can verify a password but does not reveal it, the other can be decrypted by the
// same user. docs/passwords.md describes both, and whom they help against. All operations need the module qor-openssl.
// They return false and set the last error on failure. Any thread.
//
// A password is a sequence of bytes, in UTF-8 if it comes from the user, and is never normalised. It may be empty.
// Control characters are refused (qorError_bad_password). The caller wipes its own copy.
#pragma once

#include "qor/system/String.h"
#include "qor/system/TextView.h"

// Creates the stored form of a password: "SCRAM-SHA-256$<iterations>:<salt>$<StoredKey>:<ServerKey>". If `earlier` is
// null, it uses 600,000 iterations and a fresh salt, so equal passwords get different forms. Otherwise `earlier` is
// such a form, or its beginning up to the salt or beyond, and supplies the iterations and the salt.
// qorError_bad_password_hash: `earlier` is not such a form, or its iterations do not lie between 4,096 and 2,000,000.
[[nodiscard]] inline bool qorCreatePasswordHash(const char* password, const char* earlier, qorString& hash) noexcept {
    return qor::glue::qorCreatePasswordHash(password, earlier, hash);
}

// Checks a password against a stored form, in a time that does not depend on how close it is. Returns false with
// qorError_credentials_refused for a wrong password, or qorError_bad_password_hash if `hash` is not a stored form.
[[nodiscard]] inline bool qorVerifyPassword(const char* password, const char* hash) noexcept {
    return qor::glue::qorVerifyPassword(password, hash);
}

// Generates a password of 100 random bits: four groups of letters and digits that are hard to confuse.
[[nodiscard]] inline bool qorGeneratePassword(qorString& password) noexcept {
    return qor::glue::qorGeneratePassword(password);
}

// Overwrites the whole memory of a string and empties it. Compilers do not remove that.
inline void qorWipeString(qorString& text) noexcept {
    volatile char* const bytes = text.m_data.text;
    for (uint32 i = 0; i < text.m_data.alloc; ++i)
        bytes[i] = '\0';
    text.Empty();
}

// A string that is wiped at its end. One that grows leaves copies behind; those that operations of this file fill in do
// not grow.
class qorSecretString : public qorString {
public:
    qorSecretString() noexcept = default;
    // Copies a text.
    explicit qorSecretString(const char* text) noexcept : qorString(text) {}
    qorSecretString(const qorSecretString&) = delete;
    qorSecretString& operator=(const qorSecretString&) = delete;
    ~qorSecretString() { qorWipeString(*this); }
};

// Encrypts a password, or any other bytes up to 64 KiB, for a program that has to present it elsewhere. `text` gets
// "AES-256-GCM$1:<key>$<nonce>:<bytes>:<tag>", a different one each time. The key is the newest of this user's; the
// first call makes it. `context` says what the password is for, such as a host and an account, at most 4 KiB: only the
// same context decrypts, so that nobody can put the text in the place of another.
[[nodiscard]] inline bool qorEncryptPassword2(qorTextView password, qorTextView context, qorString& text) noexcept {
    return qor::glue::qorEncryptPassword2(password, context, text);
}

// Decrypts such a text; the caller wipes `password`. `has_old_key`, if not null, is whether there is a newer key, with
// which the password should be encrypted again. On failure nothing is changed:
// qorError_encrypted_password: it is not such a text; qorError_encrypted_newer: of a later form
// qorError_encryption_key_unknown: another user's, or another host's, or the key was removed
// qorError_encrypted_tampered: the key is known, but the text was changed or the context is another
// qorError_encryption_keys_unusable: the file of the keys is damaged, or others have access to it
[[nodiscard]] inline bool qorDecryptPassword2(const char* text, qorTextView context, qorString& password,
                                              bool* has_old_key = nullptr) noexcept {
    return qor::glue::qorDecryptPassword2(text, context, password, has_old_key);
}

// Makes a new key, which encrypts from now on. The old ones go on decrypting.
[[nodiscard]] inline bool qorRenewPasswordKey() noexcept { return qor::glue::qorRenewPasswordKey(); }

// Encrypts a text again if it has an old key: `text` is replaced, and `changed` is true. Fails like the two above, and
// leaves `text` as it was.
[[nodiscard]] inline bool qorReencryptPassword(qorString& text, qorTextView context, bool& changed) noexcept {
    qorSecretString password;
    bool has_old_key = false;
    if (!qorDecryptPassword2(text, context, password, &has_old_key))
        return false;
    changed = false;
    if (!has_old_key)
        return true;
    changed = qorEncryptPassword2(password, context, text);
    return changed;
}
