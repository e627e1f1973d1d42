// The interfaces between libqor and its module for passwords. Clients do not need them.
#pragma once

#include "qor/system/Interface.h"

class qorString;
class qorStringArray;
struct qorTextView;

// The implementation of the operations in Password.h.
class IQORPasswords : public IQORInterface {
public:
    [[nodiscard]] virtual bool CreateHash(const char* password, const char* earlier, qorString& hash) noexcept = 0;
    [[nodiscard]] virtual bool Verify(const char* password, const char* hash) noexcept = 0;
    [[nodiscard]] virtual bool Generate(qorString& password) noexcept = 0;

protected:
    ~IQORPasswords() = default;
};

// The implementation of the operations in Password.h on encrypted passwords.
class IQORPasswordKeys : public IQORInterface {
public:
    [[nodiscard]] virtual bool Encrypt(const qorTextView& password, const qorTextView& context,
                                       qorString& text) noexcept = 0;
    [[nodiscard]] virtual bool Decrypt(const char* text, const qorTextView& context, qorString& password,
                                       bool* has_old_key) noexcept = 0;
    [[nodiscard]] virtual bool Renew() noexcept = 0;

protected:
    ~IQORPasswordKeys() = default;
};

// The implementation of the operations in DebugUsers.h, and of qorTrustDebugListener.
class IQORDebugUsers : public IQORInterface {
public:
    virtual bool Add(const char* file, const char* name, const char* password) noexcept = 0;
    virtual bool Change(const char* file, const char* name, const char* password) noexcept = 0;
    virtual bool Remove(const char* file, const char* name) noexcept = 0;
    virtual bool GetNames(const char* file, qorStringArray& names) noexcept = 0;
    virtual bool GetKeyFingerprint(const char* file, qorString& fingerprint) noexcept = 0;
    virtual bool Trust(const char* host, uint16 port, const char* fingerprint) noexcept = 0;

protected:
    ~IQORDebugUsers() = default;
};
