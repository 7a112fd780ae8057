#include "NewestFrame.h"

#include <QtGlobal>

#include <mutex>
#include <optional>

struct NewestFrame::State {
    std::mutex mutex;
    std::optional<TimedSample> pending;
    Consumer consumer; // empty once closed
    long long dropped = 0;

    void drain()
    {
        std::optional<TimedSample> frame;
        Consumer deliver;
        {
            std::lock_guard lock(mutex);
            frame.swap(pending);
            deliver = consumer;
        }
        if (frame && deliver)
            deliver(std::move(*frame));
    }
};

NewestFrame::NewestFrame(Post post, Consumer consumer)
    : m_post(std::move(post))
    , m_state(std::make_shared<State>())
{
    Q_ASSERT(m_post && consumer);
    m_state->consumer = std::move(consumer);
}

NewestFrame::~NewestFrame() { close(); }

void NewestFrame::push(TimedSample frame)
{
    bool schedule = false;
    {
        std::lock_guard lock(m_state->mutex);
        if (!m_state->consumer)
            return;
        if (m_state->pending)
            ++m_state->dropped;
        else
            schedule = true;
        m_state->pending = std::move(frame);
    }
    // One drain job per waiting frame: a frame that replaces another rides on the queued job.
    if (schedule)
        m_post([state = m_state] { state->drain(); });
}

long long NewestFrame::dropped() const
{
    std::lock_guard lock(m_state->mutex);
    return m_state->dropped;
}

void NewestFrame::close()
{
    std::lock_guard lock(m_state->mutex);
    m_state->consumer = nullptr;
    m_state->pending.reset();
}
