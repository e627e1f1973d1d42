// Inside the log: the journal of systemd, or else syslog.
#pragma once

#include "log/system_log.h"

#include <cstdint>
#include <string>
#include <string_view>

struct sockaddr_un;

namespace qor::log {

// The sockets are asked for by their names each time, so that a daemon may be replaced while the process runs. They are
// opened anew if the host has closed their descriptors.
class system_log final : public system_service {
public:
    system_log(std::string journal, std::string syslog);
    ~system_log();

    outcome send(const system_entry& entry) noexcept override;
    bool may_wait() const noexcept override { return false; }
    std::string reason() override;
    void continue_in_child() noexcept override;

private:
    // A socket of ours, and what it was when it was opened: its number may belong to another file by now.
    struct own_socket {
        int descriptor = -1;
        std::uint64_t identity[2] = {0, 0};

        bool is_ours() const noexcept;
        int open(int type) noexcept;
        void close() noexcept;
    };

    outcome send_to_journal(const system_entry& entry) noexcept;
    outcome send_to_syslog(const system_entry& entry) noexcept;
    outcome send_datagram(const std::string& path, std::string_view bytes) noexcept;
    outcome send_as_file(const std::string& path, std::string_view bytes) noexcept;
    outcome send_on_stream(std::string_view bytes) noexcept;
    outcome judge(int reason) noexcept;

    const std::string m_journal;
    const std::string m_syslog;
    own_socket m_datagrams;
    own_socket m_stream; // for a syslog that takes no datagrams
    int m_reason = 0;
    std::string m_subject; // what m_reason is about
};

} // namespace qor::log
