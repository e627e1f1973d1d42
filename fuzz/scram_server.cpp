// The server's side of a login: an input is the two messages of a client with a line end between. In the second, "$R"
// stands for the nonce and "$P" for the right proof, so that inputs come as far as a login. A plain reader of messages
// says what must come out.
#include "login/scram_server.h"

#include "login/private_file.h"
#include "plain_messages.h"
#include "plain_scram.h"

#include <cstdint>
#include <filesystem>
#include <random>

namespace {

using namespace qor::control;
using verdict = scram_server::verdict;

constexpr std::array<uint8, 32> binding = {7, 8, 9};

// A listener's accounts, in a folder that goes with the process.
class listener {
public:
    listener() {
        m_folder = std::filesystem::temp_directory_path() / ("qor.fuzz." + std::to_string(std::random_device{}()));
        require(std::filesystem::create_directory(m_folder));
        const std::string path = (m_folder / "users").string();
        std::string reason;
        require(write_private_file(path, plain_scram::account("ada", "secret"), reason));
        require(users.open(path.c_str()) && users.open_key(m_key));
    }
    ~listener() { std::filesystem::remove_all(m_folder); }

    accounts users;

private:
    std::filesystem::path m_folder;
    qor::crypto::key_pointer m_key;
};

const std::string& salted_password(const std::string& salt) {
    static const std::string made = plain_scram::salted("secret", plain_scram::from_base64(salt), 4096);
    return made;
}

bool is_plain_first(const std::string& message) {
    const std::string& header = plain_scram::header;
    if (message.substr(0, header.size()) != header)
        return false;
    const auto fields = fields_of(message.substr(header.size()));
    if (fields.size() < 2 || !is_field(fields[0], 'n') || !is_field(fields[1], 'r') ||
        !is_plain_nonce(fields[1].substr(2)) || !are_extensions(fields, 2))
        return false;
    const std::string name = fields[0].substr(2);
    for (std::size_t at = name.find('='); at != name.npos; at = name.find('=', at + 1))
        if (name.compare(at, 3, "=2C") != 0 && name.compare(at, 3, "=3D") != 0)
            return false;
    return true;
}

bool is_plain_last(const std::string& message) {
    auto fields = fields_of(message);
    if (fields.size() < 3 || !is_field(fields[0], 'c') || !is_field(fields[1], 'r') || !is_field(fields.back(), 'p'))
        return false;
    const std::string proof = fields.back().substr(2);
    const std::string bytes = proof.size() == 44 ? plain_scram::from_base64(proof) : "";
    const bool canonical = bytes.size() == 32 && plain_scram::base64(bytes) == proof;
    fields.pop_back();
    return canonical && are_extensions(fields, 2);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static listener listening;
    const std::string input(reinterpret_cast<const char*>(data), size);
    const std::size_t end = std::min(input.find('\n'), input.size());
    const std::string first = input.substr(0, end);

    scram_server server(listening.users, binding);
    std::string answer;
    const bool is_plain = is_plain_first(first);
    require(server.first(first, answer) == is_plain && answer.empty() == !is_plain);
    if (!is_plain || end == input.size()) {
        std::string nothing;
        require(is_plain || server.final(input, nothing) == verdict::malformed);
        return 0;
    }

    auto asked = plain_scram::attributes(answer);
    require(asked['i'] == "4096" && asked['s'].size() == 24);
    std::string last = replaced(input.substr(end + 1), "$R", asked['r']);
    const std::size_t proof = last.find("$P");
    const std::string before = last.substr(0, last.rfind(",p="));
    const std::string messages = first.substr(plain_scram::header.size()) + ',' + answer + ',' + before;
    std::string right;
    if (server.user() == "ada") {
        const std::string key = plain_scram::hmac(salted_password(asked['s']), "Client Key");
        right =
            plain_scram::base64(plain_scram::exclusive_or(key, plain_scram::hmac(plain_scram::hash(key), messages)));
        if (proof != last.npos)
            last.replace(proof, 2, right);
    }

    std::string out;
    const verdict result = server.final(last, out);
    require(out.empty() == (result != verdict::accepted));
    if (!is_plain_last(last)) {
        require(result == verdict::malformed);
        return 0;
    }
    const auto fields = fields_of(last);
    const std::string bound(reinterpret_cast<const char*>(binding.data()), binding.size());
    const bool all_right =
        !right.empty() && last.substr(last.rfind(",p=") + 3) == right && last.substr(0, last.rfind(",p=")) == before &&
        fields[0] == "c=" + plain_scram::base64(plain_scram::header + bound) && fields[1] == "r=" + asked['r'];
    require(result == (all_right ? verdict::accepted : verdict::refused));
    if (all_right)
        require(out == "v=" + plain_scram::base64(plain_scram::hmac(
                                  plain_scram::hmac(salted_password(asked['s']), "Server Key"), messages)));
    return 0;
}
