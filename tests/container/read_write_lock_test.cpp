#include "container_support.h"

#include <atomic>
#include <chrono>
#include <thread>

using qor::test::last_error_number;

namespace {

// Does `work` on a thread of its own and returns its result.
template <class WORK>
bool elsewhere(WORK work) {
    bool result = false;
    std::thread([&] { result = work(); }).join();
    return result;
}

bool can_read(qorReadWriteLock& lock) {
    return elsewhere([&] {
        const bool can = lock.TryLockRead();
        if (can)
            lock.UnlockRead();
        return can;
    });
}

bool can_write(qorReadWriteLock& lock) {
    return elsewhere([&] {
        const bool can = lock.TryLockWrite();
        if (can)
            lock.UnlockWrite();
        return can;
    });
}

TEST(read_write_lock, is_for_many_readers_or_one_writer) {
    qorReadWriteLock lock;
    EXPECT_TRUE(can_read(lock));
    EXPECT_TRUE(can_write(lock));
    {
        const qorAutoLockRead read(lock);
        EXPECT_TRUE(read.IsHeld());
        EXPECT_TRUE(can_read(lock));
        EXPECT_FALSE(can_write(lock));
    }
    {
        const qorAutoLockWrite write(lock);
        EXPECT_TRUE(write.IsHeld());
        EXPECT_FALSE(can_read(lock));
        EXPECT_FALSE(can_write(lock));
    }
    EXPECT_TRUE(can_write(lock));
}

TEST(read_write_lock, is_recursive) {
    qorReadWriteLock lock;
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(lock.LockWrite());
        EXPECT_TRUE(lock.LockRead());
        EXPECT_TRUE(lock.TryLockWrite());
    }
    for (int i = 0; i < 6; ++i) {
        EXPECT_FALSE(can_read(lock)) << i;
        lock.UnlockWrite();
    }
    // It reads on.
    EXPECT_TRUE(can_read(lock));
    for (int i = 0; i < 3; ++i) {
        EXPECT_FALSE(can_write(lock)) << i;
        lock.UnlockRead();
    }
    EXPECT_TRUE(can_write(lock));
}

TEST(read_write_lock, a_reader_cannot_become_a_writer) {
    qorReadWriteLock lock;
    const qorAutoLockRead read(lock);
    EXPECT_FALSE(lock.LockWrite());
    EXPECT_EQ(last_error_number(), static_cast<uint32>(qorError_lock_would_wait_for_itself));
    EXPECT_FALSE(lock.TryLockWrite());
    const qorAutoLockWrite write(lock);
    EXPECT_FALSE(write.IsHeld());
    EXPECT_TRUE(can_read(lock));
}

TEST(read_write_lock, timed_forms_give_up) {
    qorReadWriteLock lock;
    ASSERT_TRUE(lock.LockRead());
    qorClearLastError();
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_FALSE(elsewhere([&] { return lock.LockWrite(20); }));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(20));
    EXPECT_EQ(last_error_number(), static_cast<uint32>(qorError_none));
    EXPECT_TRUE(can_read(lock)) << "no writer waits any more";
    lock.UnlockRead();
    ASSERT_TRUE(lock.LockWrite(1000));
    EXPECT_FALSE(elsewhere([&] { return lock.LockRead(20); }));
    lock.UnlockWrite();
    EXPECT_TRUE(can_write(lock));
}

// While a writer waits, new readers wait, and those that read may read again.
TEST(read_write_lock, prefers_writers) {
    qorReadWriteLock lock;
    ASSERT_TRUE(lock.LockRead());
    std::atomic<bool> has_written = false;
    std::thread writer([&] {
        const qorAutoLockWrite write(lock);
        has_written = true;
    });
    while (can_read(lock)) // until the writer waits
        std::this_thread::yield();
    EXPECT_TRUE(lock.TryLockRead()) << "recursion";
    std::thread reader([&] {
        const qorAutoLockRead read(lock);
        EXPECT_TRUE(has_written);
    });
    lock.UnlockRead();
    EXPECT_FALSE(has_written);
    lock.UnlockRead();
    writer.join();
    reader.join();
    EXPECT_TRUE(can_write(lock));
}

// A writer that gives up lets the readers behind it go on.
TEST(read_write_lock, a_writer_that_gives_up_frees_the_readers) {
    qorReadWriteLock lock;
    ASSERT_TRUE(lock.LockRead());
    std::thread writer([&] { EXPECT_FALSE(lock.LockWrite(50)); });
    std::thread reader([&] {
        EXPECT_TRUE(lock.LockRead());
        lock.UnlockRead();
    });
    writer.join();
    reader.join();
    lock.UnlockRead();
}

TEST(read_write_lock, refuses_to_unlock_what_is_not_held) {
    qorReadWriteLock lock;
    lock.UnlockRead(); // reported as assertions
    lock.UnlockWrite();
    ASSERT_TRUE(lock.LockWrite());
    EXPECT_TRUE(elsewhere([&] {
        lock.UnlockWrite();
        lock.UnlockRead();
        return true;
    }));
    EXPECT_FALSE(can_read(lock));
    lock.UnlockWrite();
    EXPECT_TRUE(can_write(lock));
}

TEST(read_write_lock, guards_data) {
    qorReadWriteLock lock;
    long first = 0, second = 0; // always equal, except inside a write
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([&, thread] {
            for (int i = 0; i < 2000; ++i) {
                if ((i + thread) % 4 == 0) {
                    const qorAutoLockWrite write(lock);
                    ++first;
                    const qorAutoLockRead read(lock);
                    ++second;
                } else {
                    const qorAutoLockRead read(lock);
                    ASSERT_EQ(first, second);
                    const qorAutoLockRead again(lock);
                    ASSERT_EQ(first, second);
                }
            }
        });
    }
    for (std::thread& each : threads)
        each.join();
    EXPECT_EQ(first, 2000);
    EXPECT_EQ(second, 2000);
}

} // namespace
