// Checks from outside that neither the bytes nor the times of answers reveal which accounts exist.
#include "host_process.h"
#include "socket_peer.h"
#include "support/load.h"

#include <algorithm>
#include <mutex>
#include <thread>

namespace {

using namespace qor::test;

struct answers {
    std::vector<double> first; // milliseconds until the answer to the first message
    std::vector<double> last;  // until the refusal
    std::vector<std::string> shapes;
};

double median(std::vector<double> of) {
    const auto middle = of.begin() + static_cast<std::ptrdiff_t>(of.size() / 2);
    std::nth_element(of.begin(), middle, of.end());
    return *middle;
}

// Returns the properties of an answer that do not depend on random values.
std::string shape(const frame& of) {
    std::string text = std::to_string(static_cast<unsigned>(of.type)) + '/' + std::to_string(of.request) + '/' +
                       std::to_string(of.payload.size());
    if (of.type == frame_type::refusal)
        return text + ':' + of.payload;
    for (const auto& [name, value] : plain_scram::attributes(of.payload))
        text += std::string{':', name} + std::to_string(name == 'i' ? std::stoul(value) : value.size());
    return text;
}

TEST(timing, of_known_and_unknown_users) {
    QOR_NEEDS_SEVERAL_USERS();
    // So many accounts that no account gets enough wrong guesses to delay the next ones.
    std::string accounts;
    for (int i = 0; i < 20; ++i)
        accounts += plain_scram::account("k" + std::to_string(10 + i), "secret");
    host_process host(accounts);
    const int tries = load(40, 200);
    constexpr int lanes = 8;
    std::mutex lock;
    answers known, unknown;
    std::vector<std::thread> all;
    // Each guess comes from its own user, so that none is delayed. Known and unknown accounts alternate, and both are
    // tried at all times.
    for (int lane = 0; lane < lanes; ++lane)
        all.emplace_back([&, lane] {
            for (int i = lane; i < 2 * tries; i += lanes) {
                const bool is_known = (i / lanes + lane) % 2 == 0;
                plain_scram::client who{(is_known ? "k" : "x") + std::to_string(10 + i / lanes % 20), "guess", {}};
                tls_peer peer(host.port(), user_number(static_cast<unsigned>(i)));
                ASSERT_TRUE(peer.shake_hands());
                const test_clock::time_point begin = test_clock::now();
                const std::optional<frame> first = peer.begin_login(who);
                const double until_first = seconds_since(begin) * 1000;
                ASSERT_TRUE(first);
                const std::string final = who.final(first->payload);
                const test_clock::time_point middle = test_clock::now();
                ASSERT_TRUE(peer.send(frame_type::login_final, 2, final));
                const std::optional<frame> last = peer.next();
                const double until_last = seconds_since(middle) * 1000;
                ASSERT_TRUE(is_refusal(last));
                const std::lock_guard hold(lock);
                answers& of = is_known ? known : unknown;
                of.first.push_back(until_first);
                of.last.push_back(until_last);
                of.shapes.push_back(shape(*first) + ' ' + shape(*last));
            }
        });
    for (std::thread& each : all)
        each.join();
    ASSERT_EQ(known.first.size(), static_cast<std::size_t>(tries));
    ASSERT_EQ(unknown.first.size(), static_cast<std::size_t>(tries));

    const std::string only = known.shapes.front();
    const auto same = std::count(known.shapes.begin(), known.shapes.end(), only) +
                      std::count(unknown.shapes.begin(), unknown.shapes.end(), only);
    std::printf("messages to a known and to an unknown user: %ld of %d of the same shape\n", static_cast<long>(same),
                2 * tries);
    EXPECT_EQ(same, 2 * tries);
    for (const auto& [what, times] :
         {std::pair("the first answer", &answers::first), std::pair("the refusal", &answers::last)}) {
        const double of_known = median(known.*times);
        const double of_unknown = median(unknown.*times);
        std::printf("time until %s, medians of %d: a known user %.2f ms, an unknown one %.2f ms (5 ms apart at most)\n",
                    what, tries, of_known, of_unknown);
        if (whole_load()) {
            EXPECT_LT(std::abs(of_known - of_unknown), 5) << what;
        }
    }
}

} // namespace
