// Inside the module qor-openssl: who may log in to a listener, and the listener's own key, which lies beside that file.
#pragma once

#include "scram.h"
#include "tls_channel.h"

#include <string>
#include <vector>

namespace qor::control {

class accounts final : public scram_users {
public:
    // Null: the file in the framework's configuration folder. False: the last error says why.
    bool open(const char* path);

    // The key in the file "<accounts>.key"; made if there is none. False: the last error says why.
    bool open_key(key_pointer& out);

    // Looks into the file as it is now, so that accounts come and go while a process listens.
    bool find(const std::string& name, scram_verifier& out) override;

private:
    struct account {
        std::string name;
        scram_verifier verifier;
    };

    bool load(std::string& reason);
    uint32 usual_iterations() const;

    std::string m_path;
    std::string m_secret; // what false salts are made of
    std::vector<account> m_all;
};

} // namespace qor::control
