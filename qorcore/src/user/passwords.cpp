// Passwords and the accounts of debug control: forwards to the module qor-openssl, which implements them.
#include "qor/glue/passwords.h"
#include "error/error.h"
#include "module/module.h"

namespace {

// Creates an object of the module. Empty on failure; the last error gives the reason.
template <class INTERFACE>
zetSmartPointer<INTERFACE> of_module(const char* interface_name) noexcept {
    zetSmartPointer<INTERFACE> object;
    void* made = nullptr;
    if (qor::module::create_object("qor-openssl", interface_name, "", &made))
        object.AttachNew(static_cast<INTERFACE*>(made));
    return object;
}

zetSmartPointer<IQORPasswords> passwords() noexcept { return of_module<IQORPasswords>("IQORPasswords"); }

zetSmartPointer<IQORPasswordKeys> password_keys() noexcept { return of_module<IQORPasswordKeys>("IQORPasswordKeys"); }

zetSmartPointer<IQORDebugUsers> debug_users() noexcept { return of_module<IQORDebugUsers>("IQORDebugUsers"); }

// Checks required texts.
bool are_given(const char* operation, std::initializer_list<const char*> texts) noexcept {
    for (const char* const text : texts)
        if (text == nullptr) {
            qor::error::set(qorError_invalid_argument, {operation, "null"});
            return false;
        }
    return true;
}

} // namespace

bool qor::glue::qorCreatePasswordHash(const char* password, const char* earlier, qorString& hash) noexcept {
    if (!are_given("qorCreatePasswordHash", {password}))
        return false;
    const auto object = passwords();
    return !object.IsEmpty() && object->CreateHash(password, earlier, hash);
}

bool qor::glue::qorVerifyPassword(const char* password, const char* hash) noexcept {
    if (!are_given("qorVerifyPassword", {password, hash}))
        return false;
    const auto object = passwords();
    return !object.IsEmpty() && object->Verify(password, hash);
}

bool qor::glue::qorGeneratePassword(qorString& password) noexcept {
    const auto object = passwords();
    return !object.IsEmpty() && object->Generate(password);
}

bool qor::glue::qorEncryptPassword2(const qorTextView& password, const qorTextView& context, qorString& text) noexcept {
    const auto object = password_keys();
    return !object.IsEmpty() && object->Encrypt(password, context, text);
}

bool qor::glue::qorDecryptPassword2(const char* text, const qorTextView& context, qorString& password,
                                    bool* has_old_key) noexcept {
    if (!are_given("qorDecryptPassword2", {text}))
        return false;
    const auto object = password_keys();
    return !object.IsEmpty() && object->Decrypt(text, context, password, has_old_key);
}

bool qor::glue::qorRenewPasswordKey() noexcept {
    const auto object = password_keys();
    return !object.IsEmpty() && object->Renew();
}

bool qor::glue::qorAddDebugUser(const char* file, const char* name, const char* password) noexcept {
    if (!are_given("qorAddDebugUser", {name, password}))
        return false;
    const auto object = debug_users();
    return !object.IsEmpty() && object->Add(file, name, password);
}

bool qor::glue::qorChangeDebugUser(const char* file, const char* name, const char* password) noexcept {
    if (!are_given("qorChangeDebugUser", {name, password}))
        return false;
    const auto object = debug_users();
    return !object.IsEmpty() && object->Change(file, name, password);
}

bool qor::glue::qorRemoveDebugUser(const char* file, const char* name) noexcept {
    if (!are_given("qorRemoveDebugUser", {name}))
        return false;
    const auto object = debug_users();
    return !object.IsEmpty() && object->Remove(file, name);
}

bool qor::glue::qorGetDebugUsers(const char* file, qorStringArray& names) noexcept {
    const auto object = debug_users();
    return !object.IsEmpty() && object->GetNames(file, names);
}

bool qor::glue::qorGetDebugKeyFingerprint(const char* file, qorString& fingerprint) noexcept {
    const auto object = debug_users();
    return !object.IsEmpty() && object->GetKeyFingerprint(file, fingerprint);
}

bool qor::glue::qorTrustDebugListener(const char* host, uint16 port, const char* fingerprint) noexcept {
    if (!are_given("qorTrustDebugListener", {host, fingerprint}))
        return false;
    const auto object = debug_users();
    return !object.IsEmpty() && object->Trust(host, port, fingerprint);
}
