// A client for tests: a server that sends every message back, or a connection that sends what it reads.
//
//   ipc_driver serve ADDRESS [SILENCE]   prints "ready", and a line for each end of a connection, until its input ends
//   ipc_driver both ADDRESS COUNT        does the same with a server of its own
//   ipc_driver send ADDRESS COUNT        sends COUNT messages of 0, 7, 14, ... bytes, and prints "same" if all come
//   back
#include "qor/qor.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

const char* name_of(qorIpcEnd end) {
    switch (end) {
    case qorIpcEnd::none:
        return "none";
    case qorIpcEnd::closed:
        return "closed";
    case qorIpcEnd::closed_here:
        return "closed here";
    case qorIpcEnd::lost:
        return "lost";
    case qorIpcEnd::silent:
        return "silent";
    case qorIpcEnd::violation:
        return "violation";
    case qorIpcEnd::overloaded:
        return "overloaded";
    case qorIpcEnd::failed:
        return "failed";
    }
    return "?";
}

class echo final : public qor::object<IQORIpcTarget> {
public:
    echo() : object("echo", "IQORIpcTarget") {}
    bool Accept(IQORIpcConnection* connection) noexcept override {
        qorIpcPeer peer;
        connection->GetPeer(peer);
        std::printf("peer %s %llu\n", peer.user.Text(), static_cast<unsigned long long>(peer.process));
        return true;
    }
    void Received(IQORIpcConnection* connection, const void* bytes, uint64 length) noexcept override {
        if (!connection->TrySend(bytes, length))
            fputerr(stdout, true);
    }
    void Ended(IQORIpcConnection* connection) noexcept override { std::printf("%s\n", name_of(connection->GetEnd())); }
};

int fail() {
    fputerr(stderr, true);
    return 1;
}

int serve(const char* address, uint32 silence) {
    zetSmartPointer<echo> target;
    target.AttachNew(QOR_NEW echo);
    zetSmartPointer<IQORIpcServer> server;
    if (!qorCreateIpcServer(address, {.silence = silence}, *target, server.Out()))
        return fail();
    std::puts("ready");
    while (std::getchar() != EOF) {
    }
    return server->Close(10'000) ? 0 : fail();
}

int send(const char* address, unsigned count) {
    zetSmartPointer<IQORIpcConnection> connection;
    if (!qorCreateIpcConnection(address, connection.Out()))
        return fail();
    for (unsigned i = 0; i < count; ++i) {
        const std::string message(7 * i, static_cast<char>('a' + i % 26));
        std::string back;
        if (!connection->Send(message) || !connection->Receive(back))
            return fail();
        if (back != message) {
            std::printf("message %u is another one\n", i);
            return 1;
        }
    }
    if (!connection->Close(10'000))
        return fail();
    std::puts("same");
    return 0;
}

int both(const char* address, unsigned count) {
    zetSmartPointer<IQORIpcServer> server;
    const auto answer = [](IQORIpcConnection& from, std::string_view message) {
        if (!from.TrySend(message))
            from.Close(0); // so that nobody waits for it
    };
    if (!qorCreateIpcServer(address, {}, answer, server.Out()))
        return fail();
    if (const int code = send(address, count))
        return code;
    return server->Close(10'000) ? 0 : fail();
}

} // namespace

int main(int argc, char** argv) {
    std::setvbuf(stdout, nullptr, _IONBF, 0);
    if (argc >= 3 && std::strcmp(argv[1], "serve") == 0)
        return serve(argv[2], argc > 3 ? static_cast<uint32>(std::atoi(argv[3])) : 15'000);
    if (argc == 4 && std::strcmp(argv[1], "send") == 0)
        return send(argv[2], static_cast<unsigned>(std::atoi(argv[3])));
    if (argc == 4 && std::strcmp(argv[1], "both") == 0)
        return both(argv[2], static_cast<unsigned>(std::atoi(argv[3])));
    return 2;
}
