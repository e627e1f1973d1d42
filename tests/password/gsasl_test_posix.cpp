// Logins with GNU SASL, an independent implementation, on the other side. It normalises names and passwords, which
// changes nothing in ASCII.
#include "login/accounts.h"
#include "login/private_file.h"
#include "login/scram_client.h"
#include "login/scram_server.h"
#include "plain_scram.h"
#include "support/temp_folder.h"

#include <gsasl.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <random>

namespace {

using namespace qor::control;

using properties = std::map<Gsasl_property, std::string>;

int give_property(Gsasl* context, Gsasl_session* session, Gsasl_property wanted) {
    const auto& known = *static_cast<const properties*>(gsasl_callback_hook_get(context));
    const auto found = known.find(wanted);
    if (found == known.end())
        return GSASL_NO_CALLBACK;
    return gsasl_property_set(session, wanted, found->second.c_str());
}

class gsasl_side {
public:
    enum class which { client, server };

    gsasl_side(which side, const properties& known, const char* mechanism = "SCRAM-SHA-256-PLUS") : m_known(known) {
        EXPECT_EQ(gsasl_init(&m_context), GSASL_OK);
        gsasl_callback_set(m_context, give_property);
        gsasl_callback_hook_set(m_context, &m_known);
        const auto start = side == which::client ? gsasl_client_start : gsasl_server_start;
        EXPECT_EQ(start(m_context, mechanism, &m_session), GSASL_OK);
    }
    gsasl_side(const gsasl_side&) = delete;
    gsasl_side& operator=(const gsasl_side&) = delete;
    ~gsasl_side() {
        gsasl_finish(m_session);
        gsasl_done(m_context);
    }

    // Returns GSASL_OK at the end of a successful login, GSASL_NEEDS_MORE before.
    int step(const std::string& in, std::string& out) {
        char* bytes = nullptr;
        std::size_t size = 0;
        const int result = gsasl_step(m_session, in.data(), in.size(), &bytes, &size);
        out.assign(bytes != nullptr ? bytes : "", bytes != nullptr ? size : 0);
        gsasl_free(bytes);
        return result;
    }

private:
    properties m_known;
    Gsasl* m_context = nullptr;
    Gsasl_session* m_session = nullptr;
};

std::string random_printable(std::mt19937& random, std::size_t size) {
    std::string text(size, '\0');
    std::generate(text.begin(), text.end(), [&] { return static_cast<char>('!' + random() % 94); });
    return text;
}

std::array<uint8, 32> random_binding(std::mt19937& random) {
    std::array<uint8, 32> bytes;
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<uint8>(random()); });
    return bytes;
}

std::string base64(const std::array<uint8, 32>& bytes) {
    return plain_scram::base64({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
}

class gsasl : public testing::Test {
protected:
    void open(const std::string& users) {
        std::string reason;
        ASSERT_TRUE(write_private_file(m_path, users, reason)) << reason;
        ASSERT_TRUE(m_accounts.open(m_path.c_str()));
        ASSERT_TRUE(m_accounts.open_key(m_key));
    }

    // Returns whether GNU SASL's client is accepted.
    bool client_gets_in(const std::string& name, const std::string& password, const std::array<uint8, 32>& of_client,
                        const std::array<uint8, 32>& of_server) {
        gsasl_side client(
            gsasl_side::which::client,
            {{GSASL_AUTHID, name}, {GSASL_PASSWORD, password}, {GSASL_CB_TLS_EXPORTER, base64(of_client)}});
        scram_server server(m_accounts, of_server);
        std::string from_client;
        std::string from_server;
        EXPECT_EQ(client.step("", from_client), GSASL_NEEDS_MORE);
        EXPECT_TRUE(server.first(from_client, from_server)) << from_client;
        EXPECT_EQ(server.user(), name);
        EXPECT_EQ(client.step(from_server, from_client), GSASL_NEEDS_MORE);
        if (server.final(from_client, from_server) != scram_server::verdict::accepted)
            return false;
        EXPECT_EQ(client.step(from_server, from_client), GSASL_OK);
        return true;
    }

    qor::test::temp_folder m_folder;
    const std::string m_path = m_folder / "users";
    accounts m_accounts;
    qor::crypto::key_pointer m_key;
};

TEST_F(gsasl, its_client_and_our_server) {
    std::mt19937 random(1);
    for (int i = 0; i < 20; ++i) {
        const std::string password = random_printable(random, 1 + random() % 60);
        open(plain_scram::account("ada", password, 4096 + static_cast<int>(random() % 1000)));
        const auto binding = random_binding(random);
        EXPECT_TRUE(client_gets_in("ada", password, binding, binding)) << password;
        EXPECT_FALSE(client_gets_in("ada", password + "x", binding, binding));
        EXPECT_FALSE(client_gets_in("eve", password, binding, binding));
        EXPECT_FALSE(client_gets_in("ada", password, binding, random_binding(random)));
    }
    open(plain_scram::account("a=2C,b=3D", "comma"));
    const auto binding = random_binding(random);
    EXPECT_TRUE(client_gets_in("a=2C,b=3D", "comma", binding, binding));
}

// Without binding data it announces no channel binding, which our server does not accept.
TEST_F(gsasl, its_client_without_a_binding) {
    open(plain_scram::account("ada", "secret"));
    gsasl_side client(gsasl_side::which::client, {{GSASL_AUTHID, "ada"}, {GSASL_PASSWORD, "secret"}}, "SCRAM-SHA-256");
    scram_server server(m_accounts, {});
    std::string message;
    std::string answer;
    EXPECT_EQ(client.step("", message), GSASL_NEEDS_MORE);
    EXPECT_FALSE(server.first(message, answer)) << message;
}

// Our client with its server, which knows either the password or only the verifier.
TEST_F(gsasl, our_client_and_its_server) {
    std::mt19937 random(2);
    for (int i = 0; i < 20; ++i) {
        const std::string password = random_printable(random, 1 + random() % 60);
        const auto binding = random_binding(random);
        const auto others = random_binding(random);
        properties known = {{GSASL_CB_TLS_EXPORTER, base64(binding)}, {GSASL_SCRAM_ITER, "4096"}};
        if (i % 2 == 0) {
            known[GSASL_PASSWORD] = password;
        } else {
            qor::crypto::verifier made;
            ASSERT_TRUE(qor::crypto::make_verifier(password, 5000, "0123456789abcdef", made));
            known[GSASL_SCRAM_ITER] = "5000";
            known[GSASL_SCRAM_SALT] = qor::crypto::to_base64(made.salt);
            known[GSASL_SCRAM_STOREDKEY] = qor::crypto::to_base64(qor::crypto::bytes_of(made.stored_key));
            known[GSASL_SCRAM_SERVERKEY] = qor::crypto::to_base64(qor::crypto::bytes_of(made.server_key));
        }
        for (const bool right_password : {true, false})
            for (const bool right_binding : {true, false}) {
                gsasl_side server(gsasl_side::which::server, known);
                scram_client client("a,b=c", right_password ? password : password + "x",
                                    right_binding ? binding : others);
                std::string from_client;
                std::string from_server;
                ASSERT_EQ(server.step(client.first(), from_server), GSASL_NEEDS_MORE);
                ASSERT_TRUE(client.final(from_server, from_client)) << from_server;
                const int result = server.step(from_client, from_server);
                EXPECT_EQ(result == GSASL_OK, right_password && right_binding) << gsasl_strerror(result);
                EXPECT_EQ(client.verify(from_server), right_password && right_binding) << from_server;
            }
    }
}

} // namespace
