// Both sides of a login, tested against each other and against a plain client and server (plain_scram.h) that can get
// one step wrong.
#include "login/accounts.h"
#include "login/private_file.h"
#include "login/scram_client.h"
#include "login/scram_server.h"
#include "plain_scram.h"
#include "qor/qor.h"
#include "support/platform.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <vector>

namespace {

using namespace qor::control;
using verdict = scram_server::verdict;

constexpr std::array<uint8, 32> binding = {1, 2, 3, 0, 255, 44, 61};
const std::string binding_text(reinterpret_cast<const char*>(binding.data()), binding.size());

class scram : public testing::Test {
protected:
    scram() {
        write(plain_scram::account("ada", "secret") + plain_scram::account("bob", "other") +
              plain_scram::account("a,b=c", "comma"));
        EXPECT_TRUE(m_accounts.open(m_path.c_str()));
        EXPECT_TRUE(m_accounts.open_key(m_key));
    }

    void write(const std::string& text) {
        std::string reason;
        ASSERT_TRUE(write_private_file(m_path, text, reason)) << reason;
    }

    verdict log_in(const plain_scram::client& who, std::string* answer = nullptr) {
        scram_server server(m_accounts, binding);
        std::string first;
        if (!server.first(who.first(), first))
            return verdict::malformed;
        const std::string last = who.final(first);
        std::string out;
        const verdict result = server.final(last, out);
        EXPECT_EQ(out, result == verdict::accepted ? who.expected(first, last) : "");
        if (answer != nullptr)
            *answer = out;
        return result;
    }

    // Returns whether the real client accepts a server's messages.
    bool accepts(const std::string& first_answer_end, const std::string& first_answer_begin = "r=") {
        scram_client client("ada", "secret", binding);
        const std::string nonce = plain_scram::attributes(client.first())['r'];
        std::string out = "untouched";
        const bool done = client.final(first_answer_begin + nonce + first_answer_end, out);
        EXPECT_EQ(done, out != "untouched");
        return done;
    }

    qor::test::temp_folder m_folder;
    const std::string m_path = m_folder / "users";
    accounts m_accounts;
    qor::crypto::key_pointer m_key;
    const plain_scram::client m_ada{"ada", "secret", binding_text};
};

TEST_F(scram, a_plain_client) {
    EXPECT_EQ(log_in(m_ada), verdict::accepted);
    EXPECT_EQ(log_in({"a=2Cb=3Dc", "comma", binding_text}), verdict::accepted);
    EXPECT_EQ(log_in({"ada", "other", binding_text}), verdict::refused);
    EXPECT_EQ(log_in({"bob", "secret", binding_text}), verdict::refused);
    EXPECT_EQ(log_in({"Ada", "secret", binding_text}), verdict::refused);
    EXPECT_EQ(log_in({"", "", binding_text}), verdict::refused);
}

TEST_F(scram, both_sides_of_ours) {
    for (const auto& [name, password, known] :
         {std::tuple{"ada", "secret", true}, {"a,b=c", "comma", true}, {"ada", "", false}, {"", "", false}}) {
        scram_client client(name, password, binding);
        scram_server server(m_accounts, binding);
        std::string answer;
        std::string last;
        std::string end;
        ASSERT_TRUE(server.first(client.first(), answer));
        EXPECT_EQ(server.user(), name);
        ASSERT_TRUE(client.final(answer, last));
        EXPECT_EQ(server.final(last, end) == verdict::accepted, known) << name;
        EXPECT_EQ(client.verify(end), known);
        EXPECT_EQ(end.empty(), !known);
    }
}

// A relay has a different connection to each side, and so a different channel binding.
TEST_F(scram, another_binding) {
    plain_scram::client relay = m_ada;
    relay.binding[31] ^= 1;
    EXPECT_EQ(log_in(relay), verdict::refused);
    relay.binding.clear();
    EXPECT_EQ(log_in(relay), verdict::refused);
}

TEST_F(scram, only_one_kind_of_binding_is_spoken) {
    for (const char* const header :
         {"n,,", "y,,", "p=tls-unique,,", "p=tls-server-end-point,,", "p=tls-exporter,a=ada,", "p=tls-exporter,",
          "p=TLS-EXPORTER,,", "", ",,", "p=,,", "p=tls-exporter"}) {
        plain_scram::client other = m_ada;
        other.gs2 = header;
        EXPECT_EQ(log_in(other), verdict::malformed) << header;
    }
}

TEST_F(scram, malformed_first_messages) {
    for (const char* const bare : {"",
                                   "n=ada",
                                   "n=ada,",
                                   "n=ada,r=",
                                   "r=abc,n=ada",
                                   "n=ada,r=a b",
                                   "n=ada,r=a\x7f",
                                   "n=ada,r=\xc3\xa9",
                                   "m=x,n=ada,r=abc",
                                   "n=ada,r=abc,m=x",
                                   "n=ada,r=abc,",
                                   "n=ada,r=abc,x",
                                   "n=ada,r=abc,x=",
                                   "n=ada,r=abc,1=x",
                                   "n=ada,r=abc,r=x",
                                   "n=ada,r=abc,a=x",
                                   "n=a=da,r=abc",
                                   "n=ada=2,r=abc",
                                   "n=ada=2c,r=abc",
                                   "n=ada=3d,r=abc",
                                   "n=ada=00,r=abc",
                                   " n=ada,r=abc",
                                   "N=ada,r=abc"}) {
        scram_server server(m_accounts, binding);
        std::string answer;
        EXPECT_FALSE(server.first(plain_scram::header + bare, answer)) << bare;
        EXPECT_TRUE(answer.empty());
    }
    scram_server server(m_accounts, binding);
    std::string answer;
    EXPECT_FALSE(server.first(plain_scram::header + std::string("n=a\0a,r=abc", 11), answer));
    EXPECT_TRUE(server.first(plain_scram::header + "n=ada,r=abc,x=what,y=it=is", answer));
}

TEST_F(scram, malformed_last_messages) {
    for (const char* const wrong :
         {"proof", "order", "extension", "mandatory", "cut", "behind", "twice", "nothing", "padding"}) {
        const std::string what = wrong;
        scram_server server(m_accounts, binding);
        std::string answer;
        ASSERT_TRUE(server.first(m_ada.first(), answer));
        std::string last = m_ada.final(answer);
        const std::size_t proof = last.rfind(",p=");
        if (what == "proof")
            last.resize(proof);
        else if (what == "order")
            last = last.substr(proof + 1) + ',' + last.substr(0, proof);
        else if (what == "extension")
            last.insert(proof, ",x");
        else if (what == "mandatory")
            last.insert(proof, ",m=1");
        else if (what == "cut")
            last.pop_back();
        else if (what == "behind")
            last += ",x=1";
        else if (what == "twice")
            last = "c=AAAA," + last;
        else if (what == "nothing")
            last.clear();
        else
            last += "====";
        std::string out;
        EXPECT_EQ(server.final(last, out), verdict::malformed) << wrong;
        EXPECT_TRUE(out.empty());
    }
}

TEST_F(scram, nonce_and_proof_are_good_once) {
    scram_server server(m_accounts, binding);
    std::string answer;
    std::string out;
    EXPECT_EQ(server.final("c=AAAA,r=abc,p=AAAA", out), verdict::malformed); // before any first message
    ASSERT_TRUE(server.first(m_ada.first(), answer));
    const std::string last = m_ada.final(answer);
    EXPECT_EQ(server.final(last, out), verdict::accepted);
    EXPECT_EQ(server.final(last, out), verdict::malformed);

    // A valid message of one login is invalid in the next.
    scram_server other(m_accounts, binding);
    std::string second;
    ASSERT_TRUE(other.first(m_ada.first(), second));
    EXPECT_NE(answer, second);
    EXPECT_EQ(other.final(last, out), verdict::refused);
}

TEST_F(scram, every_changed_bit_of_the_last_message_is_refused) {
    scram_server prototype(m_accounts, binding);
    std::string answer;
    ASSERT_TRUE(prototype.first(m_ada.first(), answer));
    const std::string last = m_ada.final(answer);
    std::string out;
    for (std::size_t at = 0; at < last.size(); ++at)
        for (int bit = 0; bit < 8; ++bit) {
            scram_server server = prototype;
            std::string changed = last;
            changed[at] = static_cast<char>(changed[at] ^ (1 << bit));
            ASSERT_NE(server.final(changed, out), verdict::accepted) << changed;
            ASSERT_TRUE(out.empty());
        }
    EXPECT_EQ(prototype.final(last, out), verdict::accepted);
}

// The answers do not reveal whether a user exists.
TEST_F(scram, unknown_users) {
    const auto first_of = [this](const std::string& name) {
        scram_server server(m_accounts, binding);
        std::string answer;
        EXPECT_TRUE(server.first(plain_scram::client{name, "", binding_text}.first(), answer));
        return plain_scram::attributes(answer);
    };
    auto nobody = first_of("nobody");
    auto ada = first_of("ada");
    EXPECT_EQ(nobody['i'], ada['i']);
    EXPECT_EQ(nobody['s'].size(), ada['s'].size());
    EXPECT_EQ(nobody['r'].size(), ada['r'].size());
    EXPECT_EQ(first_of("nobody")['s'], nobody['s']);
    EXPECT_NE(first_of("nobody2")['s'], nobody['s']);
    EXPECT_NE(first_of("nobody")['r'], nobody['r']);

    // The same after a restart of the listener, but not in another listener.
    accounts again;
    qor::crypto::key_pointer key;
    ASSERT_TRUE(again.open(m_path.c_str()) && again.open_key(key));
    scram_server server(again, binding);
    std::string answer;
    ASSERT_TRUE(server.first(plain_scram::client{"nobody", "", binding_text}.first(), answer));
    EXPECT_EQ(plain_scram::attributes(answer)['s'], nobody['s']);
    ASSERT_EQ(std::remove((m_path + ".key").c_str()), 0);
    accounts other;
    ASSERT_TRUE(other.open(m_path.c_str()) && other.open_key(key));
    scram_server stranger(other, binding);
    ASSERT_TRUE(stranger.first(plain_scram::client{"nobody", "", binding_text}.first(), answer));
    EXPECT_NE(plain_scram::attributes(answer)['s'], nobody['s']);
}

// The look of an answer does not reveal whether a name has an account: each look is as frequent among names without
// one. When accounts are added, few names change their look, and those that do change their salt.
TEST_F(scram, unknown_users_look_like_known_ones) {
    const auto account = [](const std::string& name, uint32 iterations, std::size_t salt_size) {
        qor::crypto::verifier made;
        made.iterations = iterations;
        made.salt = std::string(salt_size, 's');
        return name + ':' + qor::crypto::format_verifier(made) + '\n';
    };
    constexpr int names = 3000;
    using answer = std::map<char, std::string>;
    const auto look_at_all = [&] {
        std::vector<answer> all;
        for (int i = 0; i < names; ++i) {
            scram_server server(m_accounts, binding);
            std::string text;
            EXPECT_TRUE(
                server.first(plain_scram::client{"nobody" + std::to_string(i), "", binding_text}.first(), text));
            all.push_back(plain_scram::attributes(text));
        }
        return all;
    };
    const auto expect_shares = [&](const std::vector<answer>& all, const std::map<std::string, double>& shares) {
        std::map<std::string, int> seen;
        for (answer each : all)
            ++seen[each['i'] + '/' + std::to_string(plain_scram::from_base64(each['s']).size())];
        EXPECT_EQ(seen.size(), shares.size());
        // A difference of more than 6.5 standard deviations occurs by chance in less than one run in ten thousand
        // million.
        for (const auto& [look, share] : shares)
            EXPECT_NEAR(seen[look], names * share, 6.5 * std::sqrt(names * share * (1 - share))) << look;
    };
    std::string text;
    for (const char* const name : {"a", "b", "c", "d", "e", "f"})
        text += account(name, 600000, 16);
    text += account("g", 4096, 16) + account("h", 600000, 16) + account("i", 600000, 100) + account("j", 4096, 16);
    write(text);
    std::vector<answer> before = look_at_all();
    expect_shares(before, {{"600000/16", 0.7}, {"4096/16", 0.2}, {"600000/100", 0.1}});

    write(text + account("k", 10000, 8));
    std::vector<answer> after = look_at_all();
    expect_shares(after,
                  {{"600000/16", 7 / 11.0}, {"4096/16", 2 / 11.0}, {"600000/100", 1 / 11.0}, {"10000/8", 1 / 11.0}});
    for (std::size_t i = 0; i < names; ++i)
        if (after[i]['i'] == "10000") {
            EXPECT_EQ(before[i]['s'].find(after[i]['s'].substr(0, 8)), std::string::npos);
        } else {
            EXPECT_EQ(after[i]['i'] + after[i]['s'], before[i]['i'] + before[i]['s']) << i;
        }
    write("");
    expect_shares(look_at_all(), {{"600000/16", 1}});
}

TEST_F(scram, an_account_counts_as_it_is_at_the_end) {
    const auto log_in_across = [this](const std::string& text) {
        write(plain_scram::account("ada", "secret"));
        scram_server server(m_accounts, binding);
        std::string answer, out;
        EXPECT_TRUE(server.first(m_ada.first(), answer));
        write(text);
        return server.final(m_ada.final(answer), out);
    };
    EXPECT_EQ(log_in_across(plain_scram::account("ada", "secret")), verdict::accepted);
    EXPECT_EQ(log_in_across("# moved\n" + plain_scram::account("bob", "x") + plain_scram::account("ada", "secret")),
              verdict::accepted);
    EXPECT_EQ(log_in_across(plain_scram::account("ada", "other")), verdict::refused);
    EXPECT_EQ(log_in_across(plain_scram::account("ada", "secret", 4097)), verdict::refused);
    EXPECT_EQ(log_in_across(plain_scram::account("bob", "secret")), verdict::refused);
    EXPECT_EQ(log_in_across(""), verdict::refused);
    EXPECT_EQ(log_in_across("what is this\n"), verdict::refused);
}

TEST_F(scram, the_client_bounds_the_iterations) {
    const std::string salt = ",s=AAAA,i=";
    for (const char* const fits : {"4096", "4097", "20000"})
        EXPECT_TRUE(accepts("x" + salt + fits)) << fits;
    for (const char* const not_safe :
         {"1", "0", "4095", "2000001", "1000000000", "4294971392", "-4096", "+4096", "04096", "4096.0", ""})
        EXPECT_FALSE(accepts("x" + salt + not_safe)) << not_safe;
}

TEST_F(scram, the_client_refuses_what_cannot_be) {
    EXPECT_TRUE(accepts("x,s=AAAA,i=4096,x=an extension"));
    EXPECT_FALSE(accepts(",s=AAAA,i=4096")); // the server added nothing to the nonce
    EXPECT_FALSE(accepts("x,s=AAAA,i=4096", "r=x"));
    EXPECT_FALSE(accepts("x,s=AAAA,i=4096", "m=1,r="));
    EXPECT_FALSE(accepts("x,s=AAAA,i=4096,m=1"));
    EXPECT_FALSE(accepts("x,s=,i=4096"));
    EXPECT_FALSE(accepts("x,s=AAA,i=4096"));
    EXPECT_FALSE(accepts("x,i=4096,s=AAAA"));
    EXPECT_FALSE(accepts("x,s=AAAA"));
    EXPECT_FALSE(accepts("\x01,s=AAAA,i=4096"));
    scram_client client("ada", "secret", binding);
    std::string out;
    EXPECT_FALSE(client.final("r=x,s=AAAA,i=4096", out)); // before the login has begun
    client.first();
    EXPECT_FALSE(client.final("e=unknown-user", out));
    EXPECT_FALSE(client.final("", out));
}

TEST_F(scram, the_server_has_to_prove_itself) {
    const plain_scram::server real{"secret"};
    scram_client client("ada", "secret", binding);
    const std::string first = client.first();
    std::string last;
    EXPECT_FALSE(client.verify(real.final(first, "c=,r=,p=")));
    ASSERT_TRUE(client.final(real.first(first), last));
    const std::string proof = real.final(first, last);
    EXPECT_TRUE(client.verify(proof));
    EXPECT_TRUE(client.verify(proof + ",x=1"));
    for (const std::string& wrong :
         {std::string(), std::string("v="), std::string("e=other-error"), proof.substr(0, proof.size() - 1),
          proof + "=", proof + ",", proof + ",m=1", "v=" + plain_scram::base64(std::string(32, '\0')),
          plain_scram::server{"guess"}.final(first, last), proof.substr(2)})
        EXPECT_FALSE(client.verify(wrong)) << wrong;
    std::string again;
    EXPECT_FALSE(client.final(real.first(first), again)); // the password has been wiped by now
}

// Accounts change while a process listens.
TEST_F(scram, the_file_counts_as_it_is_now) {
    write(plain_scram::account("eve", "new"));
    EXPECT_EQ(log_in(m_ada), verdict::refused);
    EXPECT_EQ(log_in({"eve", "new", binding_text}), verdict::accepted);
    write("what is this\n");
    EXPECT_EQ(log_in({"eve", "new", binding_text}), verdict::refused);
    std::remove(m_path.c_str());
    EXPECT_EQ(log_in({"eve", "new", binding_text}), verdict::refused);
    write(plain_scram::account("ada", "secret"));
    EXPECT_EQ(log_in(m_ada), verdict::accepted);
}

} // namespace
