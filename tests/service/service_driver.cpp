// Applies operations on services to the names that it is given: see line_driver.h. An operation is "exists", "start" or
// "stop" with the name, the manager (0 or 1), the time limit, the number of lines, and 1 if the user may be asked.
// "status" shows what the last of them has reported. "threads" and "fork" carry out several at once.
#include "support/line_driver.h"

#include <thread>

namespace {

using line_driver::hexadecimal;
using line_driver::words;

qorServiceStatus s_status;

qorServiceOptions options_of(const words& given) {
    const auto number = [&](std::size_t at, unsigned otherwise) {
        return at < given.size() && !given[at].empty() ? static_cast<uint32>(std::stoul(given[at])) : otherwise;
    };
    return {static_cast<qorServiceManager>(number(2, 0)), number(3, 20000), number(4, 10), number(5, 0) != 0};
}

bool exists(const words& given, std::string&) {
    return qorServiceExists(given[1].c_str(), options_of(given), &s_status);
}
bool start(const words& given, std::string&) { return qorServiceStart(given[1].c_str(), options_of(given), &s_status); }
bool stop(const words& given, std::string&) { return qorServiceStop(given[1].c_str(), options_of(given), &s_status); }

bool status(const words&, std::string& answer) {
    const qorServiceStatus& s = s_status;
    for (const long long each :
         {static_cast<long long>(s.state), static_cast<long long>(s.masked), static_cast<long long>(s.process),
          static_cast<long long>(s.end), static_cast<long long>(s.code)})
        answer.append(" ").append(std::to_string(each));
    for (const qorString* each : {&s.name, &s.description, &s.detail, &s.result})
        answer.append(" ").append(hexadecimal(std::string_view(each->Text(), each->Length())));
    for (const qorString& line : s.lines)
        answer.append(" ").append(hexadecimal(std::string_view(line.Text(), line.Length())));
    return true;
}

// "threads NAME COUNT": that many threads start and stop the service, each ten times. Says how many calls succeeded.
bool threads(const words& given, std::string& answer) {
    std::atomic<int> good{0};
    std::vector<std::thread> all;
    for (int i = 0; i < std::stoi(given[2]); ++i)
        all.emplace_back([&] {
            for (int k = 0; k < 10; ++k)
                good += qorServiceStart(given[1].c_str()) + qorServiceStop(given[1].c_str());
        });
    for (std::thread& each : all)
        each.join();
    answer.append(" ").append(std::to_string(good));
    return true;
}

// "many NAME COUNT": the same on this thread.
bool many(const words& given, std::string& answer) {
    int good = 0;
    for (int i = 0; i < std::stoi(given[2]); ++i)
        good += qorServiceStart(given[1].c_str()) + qorServiceStop(given[1].c_str());
    answer.append(" ").append(std::to_string(good));
    return true;
}

} // namespace

int main() {
    return line_driver::apply_lines({{"exists", exists},
                                     {"start", start},
                                     {"stop", stop},
                                     {"status", status},
                                     {"threads", threads},
                                     {"many", many}},
                                    3);
}
