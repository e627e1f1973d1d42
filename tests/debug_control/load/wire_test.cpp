// Searches all bytes of logins between a real console and a real listener for the password in every likely form,
// encrypted and decrypted.
#include "impostor_fixture.h"
#include "memory_client.h"
#include "support/load.h"

#include <mutex>

namespace {

using namespace qor::test;

constexpr char password[] = "correct horse battery staple 1";

std::string hexadecimal(const std::string& bytes, const char* digits) {
    std::string out;
    for (const char each : bytes) {
        out += digits[static_cast<unsigned char>(each) >> 4];
        out += digits[static_cast<unsigned char>(each) & 15];
    }
    return out;
}

// Returns the base64 forms of the bytes at any position in a text, without the digits that depend on their neighbours.
std::vector<std::string> in_base64(const std::string& bytes) {
    std::vector<std::string> all;
    for (std::size_t before = 0; before < 3; ++before) {
        const std::string whole = plain_scram::base64(std::string(before, 'x') + bytes);
        const std::size_t begin = before == 0 ? 0 : 4;
        all.push_back(whole.substr(begin, (before + bytes.size()) / 3 * 4 - begin));
    }
    return all;
}

std::string in_utf16(const std::string& ascii, bool low_byte_first) {
    std::string out;
    for (const char each : ascii)
        out += low_byte_first ? std::string{each, '\0'} : std::string{'\0', each};
    return out;
}

// Returns all forms that reveal the secret, with their names.
std::vector<std::pair<std::string, std::string>> forms(const std::string& name, const std::string& secret) {
    std::vector<std::pair<std::string, std::string>> all;
    const std::pair<std::string, std::string> codes[] = {{name, secret},
                                                         {name + " in UTF-16LE", in_utf16(secret, true)},
                                                         {name + " in UTF-16BE", in_utf16(secret, false)}};
    for (const auto& [what, bytes] : codes) {
        all.emplace_back(what, bytes);
        all.emplace_back(what + ", hexadecimal", hexadecimal(bytes, "0123456789abcdef"));
        all.emplace_back(what + ", HEXADECIMAL", hexadecimal(bytes, "0123456789ABCDEF"));
        for (const std::string& text : in_base64(bytes))
            all.emplace_back(what + ", base64", text);
    }
    return all;
}

// Returns the password and its equivalents for a salt: the keys that are derived from it.
std::vector<std::pair<std::string, std::string>> secrets(const std::string& salt) {
    auto all = forms("the password", password);
    const std::string salted = plain_scram::salted(password, salt, 4096);
    for (const auto& [name, key] : {std::pair("the salted password", salted),
                                    std::pair("the client's key", plain_scram::hmac(salted, "Client Key")),
                                    std::pair("the server's key", plain_scram::hmac(salted, "Server Key"))}) {
        all.emplace_back(name, key);
        all.emplace_back(std::string(name) + ", hexadecimal", hexadecimal(key, "0123456789abcdef"));
        all.emplace_back(std::string(name) + ", base64", plain_scram::base64(key));
    }
    return all;
}

// Returns the names of the secrets that occur in `bytes`.
std::vector<std::string> found(const std::vector<std::pair<std::string, std::string>>& secrets,
                               const std::string& bytes) {
    std::vector<std::string> all;
    for (const auto& [name, secret] : secrets)
        if (bytes.find(secret) != bytes.npos)
            all.push_back(name);
    return all;
}

qor::sockets::socket connect_to_listener(uint16 port) {
    std::vector<qor::sockets::endpoint> places;
    std::string reason;
    qor::sockets::socket made;
    EXPECT_EQ(qor::sockets::resolve("127.0.0.1", port, false, places, reason), 0) << reason;
    EXPECT_EQ(qor::sockets::connect_to(places.at(0), 5000, made), 0);
    return made;
}

// Sits between a console and a listener and records their bytes.
class recorder {
public:
    explicit recorder(uint16 to) : m_front([this, to](fake_listener& through) { pass_on(through, to); }) {}

    uint16 port() const { return m_front.port(); }

    // Returns all recorded bytes, separately for each direction.
    std::string recorded() {
        const std::lock_guard hold(m_lock);
        return m_to_listener + '\n' + m_to_console;
    }

private:
    void pass_on(fake_listener& through, uint16 to) {
        qor::sockets::socket back = connect_to_listener(to);
        for (;;) {
            qor::sockets::watched watched[] = {
                {&through.end(), true, false}, {&through.connection(), true, false}, {&back, true, false}};
            qor::sockets::wait(watched, -1);
            if (watched[0].ready || (watched[1].ready && !move(through.connection(), back, m_to_listener)) ||
                (watched[2].ready && !move(back, through.connection(), m_to_console)))
                return;
        }
    }

    bool move(const qor::sockets::socket& from, const qor::sockets::socket& to, std::string& record) {
        char bytes[4096];
        std::size_t count, sent;
        if (qor::sockets::receive(from, bytes, sizeof bytes, &count) != 0 || count == 0)
            return false;
        const std::lock_guard hold(m_lock);
        record.append(bytes, count);
        return qor::sockets::send(to, bytes, count, &sent) == 0 && sent == count;
    }

    std::mutex m_lock;
    std::string m_to_listener;
    std::string m_to_console;
    fake_listener m_front;
};

// Ends TLS on both sides and forwards the decrypted frames one by one.
class relay {
public:
    relay(EVP_PKEY* key, uint16 to) : m_front([this, key, to](fake_listener& through) { pass_on(through, key, to); }) {}

    uint16 port() const { return m_front.port(); }

    std::string deciphered() {
        const std::lock_guard hold(m_lock);
        return m_deciphered;
    }

private:
    void pass_on(fake_listener& through, EVP_PKEY* key, uint16 to) {
        fake_tls front(through, key, {});
        memory_client back;
        const qor::sockets::socket socket = connect_to_listener(to);
        while (!back.is_open())
            if (!step(back, socket))
                return;
        for (frame request; front.next(request);) {
            back.send(request.type, request.request, request.payload);
            std::vector<frame> answers;
            while (answers.empty() && step(back, socket))
                answers = back.frames();
            const std::lock_guard hold(m_lock);
            m_deciphered = front.plain + '\n' + back.plain;
            if (answers.empty())
                return;
            front.send(answers[0].type, answers[0].request, answers[0].payload);
        }
    }

    static bool step(memory_client& peer, const qor::sockets::socket& socket) {
        const std::string out = peer.take();
        char bytes[4096];
        std::size_t count;
        if (!out.empty() && (qor::sockets::send(socket, out.data(), out.size(), &count) != 0 || count != out.size()))
            return false;
        qor::sockets::watched watched[] = {{&socket, true, false}};
        qor::sockets::wait(watched, 10'000);
        if (qor::sockets::receive(socket, bytes, sizeof bytes, &count) != 0 || count == 0)
            return false;
        peer.give({bytes, count});
        return true;
    }

    std::mutex m_lock;
    std::string m_deciphered;
    fake_listener m_front;
};

class wire : public impostors {
protected:
    wire() {
        const std::string line = plain_scram::account("ada", password);
        m_salt = plain_scram::from_base64(line.substr(line.find(':', line.find("$4096:") + 1) + 1, 24));
        const std::string users = private_file(folder(), "users of the wire", line);
        EXPECT_TRUE(create_debug_listener(m_listener.Out()));
        EXPECT_TRUE(m_listener->Listen("127.0.0.1:0", users.c_str(), &m_port)) << last_error();
    }

    // Tries a password with one wrong letter first.
    void log_in_and_work(uint16 at) {
        control_pointer control = make();
        ASSERT_TRUE(control->Connect("127.0.0.1", at)) << last_error();
        EXPECT_FALSE(control->Login("ada", (std::string(password) + 'x').c_str()));
        EXPECT_EQ(error_number(), qorError_credentials_refused);
        ASSERT_TRUE(control->Login("ada", password)) << last_error();
        EXPECT_FALSE(codes(control).empty());
        EXPECT_TRUE(control->DisableAll()) << last_error();
    }

    void expect_nothing_in(const std::string& bytes, const std::string& salt, const char* what, int logins) {
        const auto wanted = secrets(salt);
        const std::vector<std::string> seen = found(wanted, bytes);
        std::printf("%s: %zu bytes of %d logins, the password and its keys in %zu of %zu forms\n", what, bytes.size(),
                    logins, seen.size(), wanted.size());
        EXPECT_TRUE(seen.empty()) << seen.front();
    }

    zetSmartPointer<IQORDebugListener> m_listener;
    std::string m_salt;
    uint16 m_port = 0;
};

// The search finds secrets that are present. Without this test the others would prove nothing.
TEST_F(wire, the_search_finds_every_form) {
    const std::string salt = "0123456789abcdef";
    const auto all = secrets(salt);
    EXPECT_EQ(all.size(), 27u);
    for (const auto& [name, secret] : all) {
        EXPECT_GE(secret.size(), 30u) << name;
        EXPECT_FALSE(found(all, "before" + secret + "behind").empty()) << name;
    }
    // The forms that base64(1) and xxd(1) produce of {"p":"..."}, at different positions.
    const auto password_alone = forms("the password", password);
    for (const char* const text : {"eyJwIjoiY29ycmVjdCBob3JzZSBiYXR0ZXJ5IHN0YXBsZSAxIn0K",
                                   "eyJwYSI6ImNvcnJlY3QgaG9yc2UgYmF0dGVyeSBzdGFwbGUgMSJ9Cg==",
                                   "eyJwYXMiOiJjb3JyZWN0IGhvcnNlIGJhdHRlcnkgc3RhcGxlIDEifQo=",
                                   "7b2270223a22636f727265637420686f7273652062617474657279207374617"
                                   "06c652031227d0a"})
        EXPECT_EQ(found(password_alone, text).size(), 1u) << text;
}

TEST_F(wire, of_a_console_and_a_listener) {
    recorder between(m_port);
    const int logins = load(3, 15);
    for (int i = 0; i < logins; ++i)
        log_in_and_work(between.port());
    const std::string bytes = between.recorded();
    EXPECT_GT(bytes.size(), static_cast<std::size_t>(logins) * 2000);
    expect_nothing_in(bytes, m_salt, "on the wire", logins);
    // Trace codes and the account's name must not be visible either.
    EXPECT_EQ(bytes.find("system.debug-control"), std::string::npos);
    EXPECT_EQ(bytes.find("n=ada"), std::string::npos);
}

// The decrypted input from the console: the view of an honest listener.
TEST_F(wire, deciphered_by_the_other_end) {
    std::string deciphered;
    const int logins = load(10, 100);
    {
        fake_listener honest([&](fake_listener& through) {
            fake_tls tls(through, m_key.get(), {});
            frame request;
            if (log_in(tls, {password}))
                tls.next(request);
            deciphered += tls.plain;
        });
        for (int i = 0; i < logins; ++i) {
            control_pointer control = make();
            ASSERT_TRUE(control->Connect("127.0.0.1", honest.port())) << last_error();
            ASSERT_TRUE(control->Login("ada", password)) << last_error();
        }
    }
    EXPECT_NE(deciphered.find("n=ada"), std::string::npos);
    EXPECT_NE(deciphered.find(",p="), std::string::npos);
    expect_nothing_in(deciphered, plain_scram::server{password}.salt, "deciphered by the other end", logins);
}

TEST_F(wire, deciphered_by_a_relay) {
    relay between(m_key.get(), m_port);
    const int logins = load(3, 15);
    int refused = 0;
    for (int i = 0; i < logins; ++i) {
        control_pointer control = make();
        ASSERT_TRUE(control->Connect("127.0.0.1", between.port())) << last_error();
        refused += !control->Login("ada", password) && error_number() == qorError_credentials_refused;
    }
    std::printf("a relay over sockets: refused %d of %d\n", refused, logins);
    EXPECT_EQ(refused, logins);
    EXPECT_NE(between.deciphered().find(",s=" + plain_scram::base64(m_salt) + ",i=4096"), std::string::npos);
    expect_nothing_in(between.deciphered(), m_salt, "deciphered by a relay", 1);
}

} // namespace
