// Applies the operations on encrypted passwords to the words that it is given: see line_driver.h. "seal" and "unseal"
// take the key, the nonce and what is bound from the test.
#include "secret/encrypted_text.h"
#include "support/line_driver.h"

#include <cstdlib>
#include <cstring>
#include <fstream>

namespace {

using line_driver::hexadecimal;
using line_driver::words;
namespace secret = qor::secret;

void add(std::string& answer, std::string_view bytes) { answer.append(" ").append(hexadecimal(bytes)); }

template <std::size_t SIZE>
std::array<uint8, SIZE> bytes_of(const std::string& text) {
    std::array<uint8, SIZE> out{};
    std::copy_n(text.begin(), std::min(SIZE, text.size()), out.begin());
    return out;
}

template <std::size_t SIZE>
std::string_view view(const std::array<uint8, SIZE>& bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), SIZE};
}

// "encrypt PASSWORD CONTEXT"
bool encrypt(const words& given, std::string& answer) {
    qorString text;
    if (!qorEncryptPassword2(given[1], given[2], text))
        return false;
    add(answer, text.Text());
    return true;
}

// "decrypt TEXT CONTEXT"
bool decrypt(const words& given, std::string& answer) {
    qorSecretString password("before");
    bool has_old_key = false;
    if (!qorDecryptPassword2(given[1].c_str(), given[2], password, &has_old_key)) {
        if (password != "before")
            std::abort(); // a failure changes nothing
        return false;
    }
    add(answer, std::string_view(password.Text(), password.Length()));
    answer.append(has_old_key ? " 1" : " 0");
    return true;
}

// "again TEXT CONTEXT"
bool again(const words& given, std::string& answer) {
    qorString text(given[1]);
    bool has_changed = false;
    if (!qorReencryptPassword(text, given[2], has_changed))
        return false;
    add(answer, text.Text());
    answer.append(has_changed ? " 1" : " 0");
    return true;
}

bool renew(const words&, std::string&) { return qorRenewPasswordKey(); }

// "seal KEY NONCE BOUND PLAIN"
bool seal(const words& given, std::string& answer) {
    std::string cipher;
    secret::tag_bytes tag;
    if (!secret::seal(bytes_of<32>(given[1]), bytes_of<12>(given[2]), given[3], given[4], cipher, tag))
        return false;
    add(answer, cipher);
    add(answer, view(tag));
    return true;
}

// "unseal KEY NONCE BOUND CIPHER TAG"
bool unseal(const words& given, std::string& answer) {
    std::string plain;
    bool is_genuine = false;
    if (!secret::unseal(bytes_of<32>(given[1]), bytes_of<12>(given[2]), given[3], given[4], bytes_of<16>(given[5]),
                        plain, is_genuine))
        return false;
    answer.append(is_genuine ? " 1" : " 0");
    add(answer, plain);
    return true;
}

// "leftovers TEXT CONTEXT MASKED...": decrypts and forgets, and says for each secret how often it is in the memory of
// this process. The secrets come with all bits inverted, so that the question is not its own answer.
bool leftovers(const words& given, std::string& answer) {
    {
        qorSecretString password;
        if (!qorDecryptPassword2(given[1].c_str(), given[2], password))
            return false;
    }
    std::ifstream map("/proc/self/maps");
    std::vector<int> found(given.size() - 3);
    for (std::string line; std::getline(map, line);) {
        unsigned long begin = 0;
        unsigned long end = 0;
        char rights[5] = "";
        if (std::sscanf(line.c_str(), "%lx-%lx %4s", &begin, &end, rights) != 3 || std::strncmp(rights, "rw", 2) != 0)
            continue;
        const auto* const bytes = reinterpret_cast<const volatile char*>(begin);
        for (std::size_t each = 0; each < found.size(); ++each) {
            const std::string& masked = given[each + 3];
            for (std::size_t at = 0; at + masked.size() <= end - begin; ++at) {
                std::size_t same = 0;
                while (same < masked.size() && static_cast<char>(~bytes[at + same]) == masked[same])
                    ++same;
                found[each] += same == masked.size();
            }
        }
    }
    for (const int each : found)
        answer.append(" ").append(std::to_string(each));
    return true;
}

} // namespace

int main() {
    int code = 0;
    qor::or_end([&code] {
        code = line_driver::apply_lines({{"encrypt", encrypt},
                                         {"decrypt", decrypt},
                                         {"again", again},
                                         {"renew", renew},
                                         {"seal", seal},
                                         {"unseal", unseal},
                                         {"leftovers", leftovers}},
                                        3);
    });
    return code;
}
