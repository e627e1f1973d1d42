#include "authenticator.h"

#include "common/guarded.h"
#include "message_names.h"
#include "qor/glue/regular_file_posix.h"

#include <security/pam_appl.h>

#include <cerrno>
#include <crypt.h>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <memory>
#include <new>
#include <shadow.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace framework = qor::messages::framework;

namespace {

using qor::modules::guarded;

constexpr char source[] = "qorcore/modules/pam/authenticator";

// A PAM service of our own. The services of other programs have their own rules: `su` accepts any password from root.
constexpr char service[] = "qor";
constexpr char host_file[] = "/etc/pam.d/qor"; // the administrator's file takes precedence over ours

// ---- the place of the service file

// Returns the folder pam.d beside this module.
std::string own_folder() {
    Dl_info self;
    if (dladdr(host_file, &self) == 0)
        return {};
    const std::string path = self.dli_fname;
    return path.substr(0, path.rfind('/') + 1) + "pam.d";
}

// Returns false and sets the last error if it is not a plain file.
bool is_file(const char* path, const struct stat& status) noexcept {
    if (qor::glue::reason_against(status) == 0)
        return true;
    qorString fault;
    fault.LoadString(framework::catalog, framework::not_a_plain_file);
    qorSetLastError(qorError_cannot_read_file, path, fault.Text());
    return false;
}

// ---- the conversation

// The only question that is answered, and only once.
struct answer {
    const char* password;
    bool given = false;
};

void wipe(char* text) noexcept {
    if (text != nullptr)
        explicit_bzero(text, std::strlen(text));
}

// Modules may show messages and ask questions. Only a hidden prompt is answered, with the password. An account that
// needs anything else, such as a second factor or a new password, cannot log on this way.
int converse(int count, const pam_message** messages, pam_response** responses, void* context) noexcept {
    auto& known = *static_cast<answer*>(context);
    auto* const replies =
        static_cast<pam_response*>(std::calloc(static_cast<std::size_t>(count), sizeof(pam_response)));
    if (replies == nullptr)
        return PAM_BUF_ERR;
    int result = PAM_SUCCESS;
    for (int i = 0; i < count && result == PAM_SUCCESS; ++i) {
        const int style = messages[i]->msg_style;
        if (style == PAM_TEXT_INFO || style == PAM_ERROR_MSG)
            continue;
        if (style != PAM_PROMPT_ECHO_OFF || known.given) {
            result = PAM_CONV_ERR;
            break;
        }
        known.given = true;
        replies[i].resp = strdup(known.password); // PAM wipes and frees it
        if (replies[i].resp == nullptr)
            result = PAM_BUF_ERR;
    }
    if (result == PAM_SUCCESS) {
        *responses = replies;
        return PAM_SUCCESS;
    }
    for (int i = 0; i < count; ++i) {
        wipe(replies[i].resp);
        std::free(replies[i].resp);
    }
    std::free(replies);
    return result;
}

// ---- one conversation with PAM

class session {
public:
    session(const char* name, const char* password) : m_answer{password}, m_conversation{&converse, &m_answer} {
        const std::string folder = own_folder();
        const std::string file = folder + '/' + service;
        struct stat status;
        // PAM would serve a service without a file by the rules for "other", whatever they are, and it would wait on a
        // pipe. So check the files first.
        if (stat(host_file, &status) == 0) {
            if (is_file(host_file, status))
                m_result = pam_start(service, name, &m_conversation, &m_handle);
        } else if (stat(file.c_str(), &status) == 0) {
            if (is_file(file.c_str(), status))
                m_result = pam_start_confdir(service, name, &m_conversation, folder.c_str(), &m_handle);
        } else
            qorSetLastError(qorError_logon_not_configured, host_file, file.c_str());
        if (m_handle == nullptr && m_result != PAM_SUCCESS)
            fail("pam_start", name);
    }
    session(const session&) = delete;
    session& operator=(const session&) = delete;
    ~session() {
        if (m_handle != nullptr)
            pam_end(m_handle, m_result);
    }

    // On false, the last error gives the reason; the same holds for the other functions.
    bool is_open() const noexcept { return m_handle != nullptr; }

    // Whether the password is right. An account without a password cannot prove anyone's identity.
    bool authenticate(const char* name) {
        m_result = pam_authenticate(m_handle, PAM_SILENT | PAM_DISALLOW_NULL_AUTHTOK);
        return m_result == PAM_SUCCESS || fail("pam_authenticate", name);
    }

    // Whether the account may be used now.
    bool check_account(const char* name) {
        m_result = pam_acct_mgmt(m_handle, PAM_SILENT | PAM_DISALLOW_NULL_AUTHTOK);
        return m_result == PAM_SUCCESS || fail("pam_acct_mgmt", name);
    }

    // A module may have replaced the name.
    bool get_account(const char* name, qorString& out) {
        const void* found = nullptr;
        m_result = pam_get_item(m_handle, PAM_USER, &found);
        if (m_result != PAM_SUCCESS || found == nullptr)
            return fail("pam_get_item", name);
        out = static_cast<const char*>(found);
        return true;
    }

private:
    bool fail(const char* operation, const char* name);

    answer m_answer;
    const pam_conv m_conversation;
    pam_handle_t* m_handle = nullptr;
    int m_result = PAM_SUCCESS;
};

// A locked password has an exclamation mark before its hash, so PAM finds that no password matches. If the given
// password matches the hash, the error names the lock; otherwise the password is simply wrong. This needs read access
// to the shadow file.
bool fits_locked_password(const char* name, const char* password) {
    std::vector<char> buffer(1024);
    spwd entry;
    spwd* found = nullptr;
    while (getspnam_r(name, &entry, buffer.data(), buffer.size(), &found) == ERANGE && buffer.size() < (1u << 20))
        buffer.resize(buffer.size() * 2);
    bool fits = false;
    if (found != nullptr && found->sp_pwdp != nullptr && found->sp_pwdp[0] == '!') {
        const char* const hash = found->sp_pwdp + 1;
        const auto work = std::make_unique<crypt_data>();
        const char* const made = crypt_r(password, hash, work.get());
        fits = *hash != '\0' && made != nullptr && std::strcmp(made, hash) == 0;
        explicit_bzero(work.get(), sizeof *work);
    }
    explicit_bzero(buffer.data(), buffer.size());
    return fits;
}

bool session::fail(const char* operation, const char* name) {
    switch (m_result) {
    case PAM_AUTH_ERR:
        if (std::strcmp(operation, "pam_acct_mgmt") == 0)
            qorSetLastError(qorError_logon_denied, name);
        else if (fits_locked_password(name, m_answer.password))
            qorSetLastError(qorError_account_locked, name);
        else
            qorSetLastError(qorError_credentials_refused);
        break;
    case PAM_USER_UNKNOWN:
    case PAM_MAXTRIES:
        qorSetLastError(qorError_credentials_refused);
        break;
    case PAM_ACCT_EXPIRED:
        qorSetLastError(qorError_account_expired, name);
        break;
    case PAM_NEW_AUTHTOK_REQD:
        qorSetLastError(qorError_password_must_change, name);
        break;
    case PAM_AUTHTOK_EXPIRED:
        qorSetLastError(qorError_password_expired, name);
        break;
    case PAM_PERM_DENIED:
        qorSetLastError(qorError_logon_denied, name);
        break;
    default:
        qorSetLastError(qorError_logon_failed, operation, pam_strerror(m_handle, m_result));
    }
    return false;
}

class authenticator final : public qor::object<IQORAuthenticator> {
public:
    authenticator() noexcept : object("qorcore.pam.authenticator", "IQORAuthenticator") {}

    bool Authenticate(const char* name, const char* password, qorString& account) noexcept override {
        // PAM would prompt for an empty name.
        if (*name == '\0') {
            qorSetLastError(qorError_credentials_refused);
            return false;
        }
        return guarded([&] {
            session one(name, password);
            return one.is_open() && one.authenticate(name) && one.check_account(name) && one.get_account(name, account);
        });
    }
};

} // namespace

bool create_authenticator(IQORAuthenticator** out) noexcept {
    return qor::modules::make<authenticator>(source, __LINE__, out);
}
