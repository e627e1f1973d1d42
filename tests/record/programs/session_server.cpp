// A service with eight threads that leaks the session of every connection. It prints its port, and ends when its
// standard input does.
#include <arpa/inet.h>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

struct session {
    explicit session(std::string name) : user(std::move(name)) {}
    std::string user;
    std::map<std::string, std::string> values;
    char state[2000] = {};
};

std::mutex mutex;
std::map<std::string, int> visits;

[[gnu::noinline]] session* make_session(const std::string& user) {
    return new session(user); // the leak
}

std::string read_line(int connection) {
    std::string line;
    for (char byte = 0; read(connection, &byte, 1) == 1 && byte != '\n';) {
        line += byte;
    }
    return line;
}

void serve(int connection) {
    std::string user = read_line(connection);
    session* opened = make_session(user);
    for (std::string line; !(line = read_line(connection)).empty();) {
        std::size_t equals = line.find('=');
        std::string answer = "unknown\n";
        if (equals != std::string::npos) {
            opened->values[line.substr(0, equals)] = line.substr(equals + 1);
            answer = "kept\n";
        } else if (auto found = opened->values.find(line); found != opened->values.end()) {
            answer = found->second + "\n";
        }
        if (write(connection, answer.data(), answer.size()) < 0) {
            break;
        }
    }
    opened->values.clear();
    std::lock_guard lock(mutex);
    ++visits[user];
}

void accept_connections(int listener) {
    for (int connection = 0; (connection = accept(listener, nullptr, nullptr)) >= 0;) {
        serve(connection);
        close(connection);
    }
}

} // namespace

int main() {
    int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (bind(listener, reinterpret_cast<sockaddr*>(&address), length) != 0 || listen(listener, 100) != 0 ||
        getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        std::perror("session_server");
        return 1;
    }
    std::printf("%d\n", ntohs(address.sin_port));
    std::fflush(stdout);
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back(accept_connections, listener);
    }
    while (std::getchar() != EOF) {
    }
    shutdown(listener, SHUT_RDWR);
    for (std::thread& thread : threads) {
        thread.join();
    }
    close(listener);
}
