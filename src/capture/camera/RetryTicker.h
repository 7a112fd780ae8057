#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

// Calls a function every `periodMs` on a thread of its own until destroyed; the destructor
// returns only after the last call has finished.
class RetryTicker
{
public:
    RetryTicker(int periodMs, std::function<void()> tick);
    ~RetryTicker();
    RetryTicker(const RetryTicker &) = delete;
    RetryTicker &operator=(const RetryTicker &) = delete;

private:
    void run();

    const int m_periodMs;
    const std::function<void()> m_tick;
    std::mutex m_mutex;
    std::condition_variable m_wake;
    bool m_stop = false;
    std::thread m_thread;
};
