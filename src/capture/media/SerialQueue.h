#pragma once

#include <QString>

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

// A serial executor: one worker thread runs submitted jobs one after another, in order.
// async() queues a job; sync() queues it and waits for it (run inline when already on the queue,
// so a job may call sync on its own queue without dead-locking). Destruction drains the queue.
class SerialQueue
{
public:
    explicit SerialQueue(const QString &name);
    ~SerialQueue();
    SerialQueue(const SerialQueue &) = delete;
    SerialQueue &operator=(const SerialQueue &) = delete;

    /// Queues a job and returns at once.
    void async(std::function<void()> job);
    /// Runs a job on the queue and returns when it has finished.
    void sync(const std::function<void()> &job);
    /// True when called from this queue's worker.
    bool isCurrent() const;
    /// The queue's name.
    QString name() const { return m_name; }

private:
    void run();

    const QString m_name;
    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::deque<std::function<void()>> m_jobs;
    bool m_quit = false;
    std::thread m_worker;
};
