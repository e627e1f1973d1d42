// Listeners that work, but answer slowly.
#include "impostor_fixture.h"
#include "support/load.h"

#include <iostream>

namespace {

using namespace qor::test;
using clock = std::chrono::steady_clock;

class dawdlers : public impostors {
protected:
    using conduct = std::function<void(fake_listener&, fake_tls&, const std::string& answer)>;

    // Asks a listener with this conduct for its codes. Returns the seconds that it took.
    double ask(const conduct& act, bool answered) {
        fake_listener dawdler([&](fake_listener& through) {
            fake_tls tls(through, m_key.get(), {});
            frame request;
            if (!log_in(tls, {"secret"}) || !tls.next(request))
                return;
            std::string page = qor::control::empty_page(), answer;
            EXPECT_TRUE(qor::control::append_name(page, "dawdling.code"));
            qor::control::append_frame(answer, frame_type::get_codes_answer, request.request, page);
            act(through, tls, answer);
            while (!through.read().empty())
                ;
        });
        control_pointer control = make();
        EXPECT_TRUE(control->Connect("127.0.0.1", dawdler.port())) << last_error();
        EXPECT_TRUE(control->Login("ada", "secret")) << last_error();
        counting_sink sink;
        EXPECT_TRUE(control->SetSink(&sink)) << last_error();
        const clock::time_point begin = clock::now();
        qorStringArray out;
        EXPECT_EQ(control->GetCodes(out), answered) << last_error();
        const double time = std::chrono::duration<double>(clock::now() - begin).count();
        if (!answered) {
            EXPECT_EQ(error_number(), qorError_debug_connection_lost);
            EXPECT_NE(last_error().find("it does not answer"), std::string::npos) << last_error();
            sink.wait_for(1);
        }
        return time;
    }
};

// In the whole form the answer takes longer than the limit for incomplete ones. Only the progress between its pieces
// counts.
TEST_F(dawdlers, an_answer_in_pieces) {
    const double time = ask(
        [](fake_listener&, fake_tls& tls, const std::string& answer) {
            for (std::size_t at = 0; at < answer.size(); at += 8) {
                tls.send(answer.substr(at, 8));
                std::this_thread::sleep_for(std::chrono::milliseconds(load(20, 2000)));
            }
        },
        true);
    std::cout << "an answer in pieces: whole after " << time << " s\n";
}

TEST_F(dawdlers, half_an_answer) {
    const double time = ask(
        [](fake_listener&, fake_tls& tls, const std::string& answer) { tls.send(answer.substr(0, answer.size() / 2)); },
        false);
    EXPECT_TRUE(time < 20 || !whole_load());
    std::cout << "half an answer: lost after " << time << " s (at most 20)\n";
}

// The listener is alive by its heartbeats, but they are not answers. The brief form sends an answer after them; the
// whole form waits until the console gives up.
TEST_F(dawdlers, heartbeats_and_no_answer) {
    const double time = ask(
        [](fake_listener&, fake_tls& tls, const std::string& answer) {
            for (int i = 0; i < 9; ++i) {
                tls.send(frame_type::heartbeat, 0, {});
                std::this_thread::sleep_for(std::chrono::milliseconds(load(20, 2000)));
            }
            if (!whole_load())
                tls.send(answer);
        },
        !whole_load());
    EXPECT_LT(time, 20.5);
    std::cout << "heartbeats " << (whole_load() ? "and no answer: lost after " : "before an answer: whole after ")
              << time << " s (at most 20)\n";
}

} // namespace
