#include "Take.h"

#include "TrackWriter.h"
#include "VideoWriter.h"

#include <vector>

Take::Take(std::optional<QString> session, int64_t number, bool expectCam, Clock &clock, SegmentDone onSegmentDone,
           const WriterSetup &setup)
    : m_session(std::move(session))
    , m_number(number)
    , m_setup(setup)
    , m_onSegmentDone(std::move(onSegmentDone))
    , m_sync(clock)
{
    Q_ASSERT(setup.segmentSeconds > 0);
    m_sync.reset(expectCam && m_session.has_value());
    m_sync.onLock = [this](MediaTime t0) { lockAt(t0); }; // under the gate's lock
}

Take::~Take() = default;

bool Take::isAudio(const QString &track)
{
    return track == QLatin1String("mic") || track == QLatin1String("sys") || track == QLatin1String("room");
}

std::optional<MediaTime> Take::t0() const
{
    std::lock_guard lock(m_mutex);
    return m_t0;
}

SegmentWriter *Take::writer(const QString &track)
{
    std::lock_guard lock(m_mutex);
    std::unique_ptr<SegmentWriter> &w = m_writers[track];
    if (!w) {
        if (isAudio(track))
            w = std::make_unique<TrackWriter>(track, m_setup);
        else
            w = std::make_unique<VideoWriter>(track, m_setup);
        w->onSegmentDone = m_onSegmentDone;
        if (onFault)
            w->onFault = [this, track](const std::optional<QString> &fault) { onFault(track, fault); };
        w->begin(m_session, m_number);
        if (m_t0)
            w->setOpenAt(*m_t0); // a writer made after the lock takes the common start all the same
    }
    m_ended[track] = false;
    return w.get();
}

void Take::lockAt(MediaTime t0)
{
    std::lock_guard lock(m_mutex);
    m_t0 = t0;
    for (auto &[track, w] : m_writers)
        w->setOpenAt(t0);
}

void Take::write(const QString &track, const TimedSample &sample)
{
    if (!m_session || (isAudio(track) ? m_audioDone : m_camerasDone))
        return; // a sound test writes nothing; a finished half takes nothing more
    const bool extraCamera = !isAudio(track) && track != QLatin1String("cam");
    if (extraCamera ? !t0() : !m_sync.pass(track, sample.pts))
        return;
    writer(track)->append(sample);
}

void Take::sawFirst(const QString &track, MediaTime time)
{
    if (m_session && !m_audioDone)
        m_sync.saw(track, time);
}

void Take::endTrack(const QString &track)
{
    SegmentWriter *w = nullptr;
    {
        std::lock_guard lock(m_mutex);
        const auto it = m_writers.find(track);
        if (it == m_writers.end() || m_ended[track])
            return;
        m_ended[track] = true;
        w = it->second.get();
    }
    w->close(true);
}

void Take::finishAudio() { finish(true); }
void Take::finishCameras() { finish(false); }

void Take::finish(bool audio)
{
    std::atomic<bool> &done = audio ? m_audioDone : m_camerasDone;
    if (done.exchange(true))
        return;
    std::vector<SegmentWriter *> writers;
    {
        std::lock_guard lock(m_mutex);
        for (auto &[track, w] : m_writers) {
            // A track ended mid-take whose source never came back has its "_final" already.
            if (isAudio(track) == audio && (!m_ended[track] || w->isOpen()))
                writers.push_back(w.get());
            if (isAudio(track) == audio)
                m_ended[track] = true;
        }
    }
    for (SegmentWriter *w : writers)
        w->close(true);
}
