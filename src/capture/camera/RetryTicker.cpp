#include "RetryTicker.h"

#include <QtGlobal>

#include <chrono>

RetryTicker::RetryTicker(int periodMs, std::function<void()> tick)
    : m_periodMs(periodMs)
    , m_tick(std::move(tick))
{
    Q_ASSERT(m_periodMs > 0 && m_tick);
    m_thread = std::thread([this] { run(); });
}

RetryTicker::~RetryTicker()
{
    {
        std::lock_guard lock(m_mutex);
        m_stop = true;
    }
    m_wake.notify_all();
    m_thread.join();
}

void RetryTicker::run()
{
    std::unique_lock lock(m_mutex);
    while (!m_wake.wait_for(lock, std::chrono::milliseconds(m_periodMs), [this] { return m_stop; })) {
        lock.unlock();
        m_tick();
        lock.lock();
    }
}
