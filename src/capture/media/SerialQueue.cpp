#include "SerialQueue.h"

#include <QtGlobal>

#include <pthread.h>

#include <future>

SerialQueue::SerialQueue(const QString &name)
    : m_name(name)
{
    m_worker = std::thread([this] { run(); });
    // Thread names are limited to 15 bytes; keep the distinctive end ("…recorder.audio").
    const QByteArray utf8 = name.toUtf8().right(15);
    pthread_setname_np(m_worker.native_handle(), utf8.constData());
}

SerialQueue::~SerialQueue()
{
    {
        std::lock_guard lock(m_mutex);
        m_quit = true;
    }
    m_wake.notify_all();
    Q_ASSERT_X(!isCurrent(), "SerialQueue", "a queue cannot destroy itself");
    m_worker.join();
}

void SerialQueue::async(std::function<void()> job)
{
    Q_ASSERT(job);
    {
        std::lock_guard lock(m_mutex);
        m_jobs.push_back(std::move(job));
    }
    m_wake.notify_one();
}

void SerialQueue::sync(const std::function<void()> &job)
{
    Q_ASSERT(job);
    if (isCurrent()) {
        job();
        return;
    }
    std::promise<void> done;
    std::future<void> finished = done.get_future();
    async([&job, &done] {
        job();
        done.set_value();
    });
    finished.wait();
}

bool SerialQueue::isCurrent() const
{
    return std::this_thread::get_id() == m_worker.get_id();
}

void SerialQueue::run()
{
    for (;;) {
        std::function<void()> job;
        {
            std::unique_lock lock(m_mutex);
            m_wake.wait(lock, [this] { return m_quit || !m_jobs.empty(); });
            if (m_jobs.empty())
                return; // quitting and drained
            job = std::move(m_jobs.front());
            m_jobs.pop_front();
        }
        job();
    }
}
