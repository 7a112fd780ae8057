#include "Recorder.h"

#include "AudioPath.h"
#include "BravaLog.h"
#include "CameraManager.h"
#include "Clock.h"
#include "TextTools.h"
#include "DeviceChoice.h"
#include "SerialQueue.h"
#include "SessionFolder.h"
#include "Take.h"

#include <QDateTime>
#include <QPointer>

#include <algorithm>

namespace {
// Completions always arrive later on the owner's thread, never inside the call.
void finishLater(QObject *owner, std::function<void()> done)
{
    if (!done)
        return;
    QMetaObject::invokeMethod(owner, [done = std::move(done)] { done(); }, Qt::QueuedConnection);
}
} // namespace

Recorder::Recorder(AudioBackend &audio, CameraBackend &cameras, Clock &clock, QObject *parent)
    : QObject(parent)
    , m_q(std::make_unique<SerialQueue>(QStringLiteral("brava.recorder.audio")))
    , m_videoQ(std::make_unique<SerialQueue>(QStringLiteral("brava.recorder.video")))
    , m_path(std::make_unique<AudioPath>(*m_q, m_listening))
    , m_sources(std::make_unique<AudioSources>(audio, *m_path))
    , m_cameras(std::make_unique<CameraManager>(*m_videoQ, cameras, clock))
    , listening(m_listening)
    , previewing(m_cameras->previewing)
    , previewHd(m_cameras->previewHd)
    , setupCameraAllowed(m_cameras->setupAllowed)
    , m_cameraBackend(cameras)
    , m_clock(clock)
{
    m_path->onLiveAudio = [this](quint8 source, const QByteArray &pcm) {
        if (onLiveAudio)
            onLiveAudio(source, pcm);
    };
    m_cameras->onPreviewFrame = [this](const QByteArray &jpeg) {
        if (onPreviewFrame)
            onPreviewFrame(jpeg);
    };
}

Recorder::~Recorder()
{
    m_sources.reset(); // no more blocks arrive
    m_cameras.reset(); // stops the cameras; no frame or preview arrives after this
    m_path.reset(); // runs every block already handed over; no live audio after this
    // The take is let go unfinished: open segments are finished by the writers' destructors and
    // stay in writing/ for the uploader's recovery, without a callback.
    m_take.reset();
    m_q.reset();
    m_videoQ.reset();
}

std::optional<QString> Recorder::session() const
{
    return m_take ? m_take->session() : std::nullopt;
}

void Recorder::start(const std::optional<QString> &session, const WriterSetup &setup, std::function<void()> done)
{
    if (m_take) {
        QPointer<Recorder> self(this);
        stop([self, session, setup, done = std::move(done)]() mutable {
            if (self)
                self->start(session, setup, std::move(done));
        });
        return;
    }
    m_sources->clearError();
    m_lastTake = std::max(QDateTime::currentMSecsSinceEpoch(), m_lastTake + 1);
    const QString forwarded = session.value_or(QString());
    m_takeFolder = session ? setup.writingDir + QLatin1Char('/') + SessionFolder::name(*session) : QString();
    m_take = std::make_shared<Take>(
        session, m_lastTake, m_cameras->expectsCamera(), m_clock,
        [this, forwarded](const QString &path) {
            if (onSegmentDone)
                onSegmentDone(path, forwarded);
        },
        setup);
    {
        std::lock_guard lock(m_faultMutex);
        m_writeFaults.clear();
        m_faultTake = m_lastTake;
    }
    m_take->onFault = [this, number = m_lastTake](const QString &track, const std::optional<QString> &fault) {
        std::lock_guard lock(m_faultMutex);
        if (number != m_faultTake)
            return; // a track of an earlier take, still closing
        if (fault)
            m_writeFaults[track] = *fault;
        else
            m_writeFaults.erase(track);
    };
    // Handed to the queues before any source opens, so the first block already finds the take.
    m_path->beginTake(m_take);
    m_cameras->beginTake(m_take);
    m_sources->open();
    m_cameras->ensure();
    bravaLog(QStringLiteral("capture started session=") + (session ? TextTools::printable(*session) : QStringLiteral("TEST")));
    finishLater(this, std::move(done));
}

void Recorder::stop(std::function<void()> done)
{
    if (!m_take) {
        finishLater(this, std::move(done));
        return;
    }
    m_take.reset();
    m_sources->close(); // blocks already handed over are still written
    // Both halves end on their own queues; the main thread only posts and hears back. Every piece
    // has then been handed on (queued before this), so a session folder left empty goes, unless a
    // take of the same session has begun meanwhile.
    auto halves = std::make_shared<std::atomic<int>>(2);
    auto ended = [this, halves, folder = std::exchange(m_takeFolder, QString()), done = std::move(done)] {
        if (--*halves == 0)
            finishLater(this, [this, folder, done] {
                if (!folder.isEmpty() && folder != m_takeFolder)
                    SessionFolder::removeIfEmpty(folder);
                if (done)
                    done();
            });
    };
    m_path->endTake(ended);
    m_cameras->endTake(ended);
    bravaLog(QStringLiteral("capture stopped"));
}

void Recorder::restartMic() { m_sources->restartMic(); }

// ---- Cameras (decided by the camera manager) -----------------------------------------------------

bool Recorder::camerasEnabled() const { return m_cameras->enabled(); }

void Recorder::setCamerasEnabled(bool on)
{
    m_cameras->setEnabled(on);
    bravaLog(on ? QStringLiteral("Go Live ON by control") : QStringLiteral("Go Live OFF by control"));
}

void Recorder::endSetupCamera() { m_cameras->endSetupCamera(); }
void Recorder::ensureCamera() { m_cameras->ensure(); }
void Recorder::restartCamera() { m_cameras->restart(); }
QString Recorder::previewCamUID() const { return m_cameras->previewCamUID(); }
void Recorder::setPreviewCamUID(const QString &uid) { m_cameras->setPreviewCamUID(uid); }
std::optional<QString> Recorder::camError() const { return m_cameras->camError(); }
bool Recorder::camRunning() const { return m_cameras->camRunning(); }
bool Recorder::cameraRefused() const { return m_cameras->refused(); }
QList<Device> Recorder::cameras() const { return m_cameraBackend.list(); }

// ---- State for the controller -----------------------------------------------------------------

std::optional<QString> Recorder::lastError() const
{
    {
        std::lock_guard lock(m_faultMutex);
        if (!m_writeFaults.empty())
            return m_writeFaults.begin()->second;
    }
    const AudioFault fault = m_sources->fault();
    return fault == AudioFault::None ? std::nullopt : std::optional<QString>(AudioFaults::text(fault));
}

Recorder::Blocked Recorder::blocked() const
{
    std::lock_guard lock(m_faultMutex);
    return m_writeFaults.empty() ? m_sources->blocked() : Blocked::None;
}

Recorder::Levels Recorder::takeLevels()
{
    return {m_path->takePeak(AudioPath::Mic), m_path->takePeak(AudioPath::Sys)};
}

QList<Device> Recorder::mics() const { return m_sources->mics(); }

std::optional<Device> Recorder::pickMic() const { return DeviceChoice::pickMic(mics(), m_sources->chosenUID()); }

void Recorder::setMicChoice(const QString &uid) { m_sources->setChosenUID(uid); }

void Recorder::setCamChoice(const QString &uid) { m_cameras->setChosenUID(uid); }
