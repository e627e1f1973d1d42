// Two threads that take turns: a mutex guards what they share, and triggers let one at a time go on. It prints:
//
//     ping 1
//     pong 1
//     ping 2
//     pong 2
#include "qor/qor.h"

#include <thread>

namespace {

// Counted references; the last Release destroys it.
class table : public qorRefObject {
public:
    table() : qorRefObject("examples.turns.table") {}

    void say(const char* word, int round) {
        const qorAutoLockFastMutex2 hold(&m_mutex);
        fixed_fprintf(stdout, "%s %d\n", word, round);
    }

    // A trigger lets one waiter pass and closes again.
    qorTrigger ping{true};
    qorTrigger pong{false};

private:
    qorFastMutex2 m_mutex;
};

} // namespace

int main() {
    zetSmartPointer<table> shared;
    shared.AttachNew(QOR_NEW table);
    constexpr int rounds = 2;
    std::thread other([shared] {
        for (int round = 1; round <= rounds; ++round) {
            shared->pong.Wait();
            shared->say("pong", round);
            shared->ping.Set();
        }
    });
    for (int round = 1; round <= rounds; ++round) {
        shared->ping.Wait();
        shared->say("ping", round);
        shared->pong.Set();
    }
    other.join();
}
