// A proxy on this host that makes one fault at one place of a connection: after a number of bytes in one direction.
#pragma once

#include "channel/sockets.h"
#include "reset.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace qor::test {

enum class fault {
    none,
    split,      // the following bytes come separately
    single,     // from there on each byte comes separately
    pause,      // the following bytes come 0.2 seconds later
    long_pause, // 6 seconds: longer than the limit for anything incomplete
    repeat,     // the last byte comes twice
    stall,      // no more bytes come, but the connection stays
    close,      // both connections end
    reset,      // as close, but by a reset
};

class breaking_proxy {
public:
    struct order {
        fault what = fault::none;
        bool to_console = false;
        std::size_t offset = 0;
    };

    explicit breaking_proxy(uint16 listener) {
        m_to = place(listener);
        EXPECT_EQ(sockets::listen_at(place(0), m_listener), 0);
        m_port = sockets::local_end(m_listener).port();
        m_thread = std::thread([this] { run(); });
    }
    breaking_proxy(const breaking_proxy&) = delete;
    breaking_proxy& operator=(const breaking_proxy&) = delete;
    ~breaking_proxy() {
        m_ending = true;
        m_waker.wake();
        m_thread.join();
    }

    uint16 port() const { return m_port; }

    // Applies to the next connection; later ones pass unharmed. A new order replaces the previous one.
    void set(const order& wanted) {
        const std::lock_guard hold(m_lock);
        m_next = wanted;
        m_passed = {};
        m_fired = false;
    }

    // Breaks the connection without a TLS message; it has ended when this returns.
    void break_off(bool by_reset) {
        m_break = by_reset ? fault::reset : fault::close;
        m_waker.wake();
        while (m_break != fault::none)
            std::this_thread::yield();
    }

    bool fired() {
        const std::lock_guard hold(m_lock);
        return m_fired;
    }

    // The bytes of all connections since set().
    std::size_t passed(bool to_console) {
        const std::lock_guard hold(m_lock);
        return m_passed[to_console];
    }

private:
    using clock = std::chrono::steady_clock;

    struct direction {
        sockets::socket* from;
        sockets::socket* to;
        std::string waiting{};
        std::size_t passed = 0;
        char last = 0;
        fault what = fault::none;
        std::size_t offset = 0;
        clock::time_point held_until{};
    };

    static sockets::endpoint place(uint16 port) {
        std::vector<sockets::endpoint> places;
        std::string reason;
        EXPECT_EQ(sockets::resolve("127.0.0.1", port, true, places, reason), 0) << reason;
        return places.at(0);
    }

    void run() {
        while (!m_ending) {
            const clock::time_point now = clock::now();
            std::vector<sockets::watched> watched{{&m_waker.receiver(), true, false}, {&m_listener, true, false}};
            long long left = -1;
            if (m_ends[0].is_open())
                for (const direction& each : m_directions) {
                    if (each.held_until > now) {
                        const auto time = std::chrono::ceil<std::chrono::milliseconds>(each.held_until - now).count();
                        left = left < 0 ? time : std::min<long long>(left, time);
                    } else {
                        watched.push_back({each.from, true, false});
                    }
                }
            sockets::wait(watched, static_cast<int>(left));
            m_waker.take();
            if (m_break != fault::none) {
                end(m_break == fault::reset);
                m_break = fault::none;
            }
            if (watched[1].ready)
                take();
            for (std::size_t i = 0; i < 2 && m_ends[0].is_open(); ++i)
                if (m_directions[i].held_until <= clock::now() && !move(m_directions[i]))
                    end(false);
        }
    }

    void take() {
        sockets::endpoint from;
        sockets::socket made;
        if (sockets::accept_from(m_listener, made, from) != 0)
            return;
        end(false);
        if (sockets::connect_to(m_to, 10'000, m_ends[1]) != 0)
            return;
        m_ends[0] = std::move(made);
        m_directions[0] = {&m_ends[0], &m_ends[1]};
        m_directions[1] = {&m_ends[1], &m_ends[0]};
        const std::lock_guard hold(m_lock);
        const order wanted = std::exchange(m_next, {});
        m_directions[wanted.to_console].what = wanted.what;
        m_directions[wanted.to_console].offset = wanted.offset;
    }

    void end(bool by_reset) {
        for (sockets::socket& each : m_ends) {
            if (by_reset && each.is_open())
                reset(each);
            each = sockets::socket();
        }
    }

    // Returns false if one side has ended the connection.
    bool move(direction& of) {
        char bytes[4096];
        std::size_t count;
        const int failed = sockets::receive(*of.from, bytes, sizeof bytes, &count);
        if (failed != sockets::would_block && (failed != 0 || count == 0))
            return false;
        of.waiting.append(bytes, count);
        while (act(of) && !of.waiting.empty()) {
            std::size_t size = of.waiting.size();
            if (of.what == fault::single && of.passed >= of.offset)
                size = 1;
            else if (of.what != fault::none)
                size = std::min(size, of.offset - of.passed);
            if (!pass(of, of.waiting.substr(0, size)))
                return false;
            of.waiting.erase(0, size);
        }
        return true;
    }

    // Makes the fault that is due at this place. Returns false if nothing more may be passed on for now.
    bool act(direction& of) {
        if (of.what == fault::none || of.passed != of.offset)
            return true;
        {
            const std::lock_guard hold(m_lock);
            m_fired = true;
        }
        switch (of.what) {
        case fault::none:
        case fault::single:
            return true;
        case fault::split:
            return hold_for(of, std::chrono::milliseconds(1));
        case fault::pause:
            return hold_for(of, std::chrono::milliseconds(200));
        case fault::long_pause:
            return hold_for(of, std::chrono::seconds(6));
        case fault::repeat:
            of.what = fault::none;
            return of.offset == 0 || pass(of, std::string(1, of.last));
        case fault::stall:
            of.waiting.clear();
            return false;
        case fault::close:
        case fault::reset:
            end(of.what == fault::reset);
            return false;
        }
        return true;
    }

    static bool hold_for(direction& of, clock::duration time) {
        of.what = fault::none;
        of.held_until = clock::now() + time;
        return false;
    }

    bool pass(direction& of, const std::string& bytes) {
        for (std::size_t at = 0; at < bytes.size();) {
            std::size_t count;
            const int failed = sockets::send(*of.to, bytes.data() + at, bytes.size() - at, &count);
            if (failed == sockets::would_block) {
                sockets::watched writable{of.to, false, true};
                sockets::wait({&writable, 1}, -1);
            } else if (failed != 0) {
                return false;
            }
            at += count;
        }
        of.last = bytes.back();
        of.passed += bytes.size();
        const std::lock_guard hold(m_lock);
        m_passed[&of == &m_directions[1]] += bytes.size();
        return true;
    }

    sockets::endpoint m_to;
    sockets::socket m_listener;
    std::array<sockets::socket, 2> m_ends; // the console's, the listener's
    std::array<direction, 2> m_directions{};
    sockets::waker m_waker;
    std::atomic<bool> m_ending = false;
    std::atomic<fault> m_break = fault::none;
    uint16 m_port = 0;

    std::mutex m_lock;
    order m_next;
    std::array<std::size_t, 2> m_passed{};
    bool m_fired = false;

    std::thread m_thread;
};

} // namespace qor::test
