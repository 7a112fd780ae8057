#include "SyntheticCamera.h"

#include "Clock.h"
#include "TestPattern.h"

#include <QtGlobal>

#include <ctime>

namespace {

std::atomic<int64_t> g_flashAt{0};
std::atomic<int64_t> g_lastFlash{0};

void sleepUntil(int64_t ns)
{
    timespec ts{time_t(ns / 1000000000), long(ns % 1000000000)};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, nullptr) == EINTR) {
    }
}

} // namespace

SyntheticCamera::SyntheticCamera(const Device &device, QSize size, int fps, int number, int64_t counterBase,
                                 CameraBackend::FrameSink sink)
    : m_device(device)
    , m_size(size)
    , m_fps(fps)
    , m_number(number)
    , m_counterBase(counterBase)
    , m_sink(std::move(sink))
{
    Q_ASSERT(m_fps > 0 && m_sink && !m_size.isEmpty());
    m_running = true;
    m_thread = std::thread([this] { run(); });
}

SyntheticCamera::~SyntheticCamera()
{
    m_stop = true;
    if (m_thread.joinable())
        m_thread.join();
}

void SyntheticCamera::flashAt(int64_t ns)
{
    g_lastFlash = 0;
    g_flashAt = ns;
}

int64_t SyntheticCamera::lastFlashNs() { return g_lastFlash; }

void SyntheticCamera::run()
{
    const int64_t period = 1000000000 / m_fps;
    const int64_t start = Clock::monotonic().nowNs();
    for (int64_t index = 0; !m_stop; ++index) {
        sleepUntil(start + index * period);
        if (m_stop)
            break;
        const int64_t now = Clock::monotonic().nowNs();
        const int64_t flash = g_flashAt;
        // The first frame at or after the requested moment, even when this thread woke late.
        const bool white = flash > 0 && now >= flash && m_flashed != flash;
        if (white) {
            m_flashed = flash;
            g_lastFlash = now;
        }
        TimedSample sample;
        sample.kind = TimedSample::Kind::Video;
        sample.pts = MediaTime::fromNanoseconds(now);
        sample.duration = MediaTime::fromNanoseconds(period);
        sample.frame = TestPattern::draw(m_size.width(), m_size.height(), m_counterBase + index, white, m_number);
        if (sample.frame)
            m_sink(std::move(sample));
    }
    m_running = false;
}
