#include "Recorder.h"

#include "AudioBackend.h"
#include "BravaLog.h"
#include "CameraManager.h"
#include "Clock.h"
#include "Config.h"
#include "DeviceChoice.h"
#include "DriftCorrector.h"
#include "LiveConverter.h"
#include "SerialQueue.h"
#include "SyncGate.h"
#include "TrackWriter.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QPointer>
#include <QTimer>

#include <algorithm>
#include <cassert>

namespace {
constexpr int kCaptureRate = 48000;
const QString kMicBlocked = QStringLiteral("Microphone blocked — re-run setup on this computer");
const QString kNoMic = QStringLiteral("No microphone found");
const QString kMicUnavailable = QStringLiteral("Microphone unavailable");
const QString kSysBlocked = QStringLiteral("Computer audio blocked — re-run setup on this computer");
const QString kSysStopped = QStringLiteral("Computer audio stopped");

// Completions always arrive later on the owner's thread, never inside the call.
void finishLater(QObject *owner, std::function<void()> done)
{
    if (!done)
        return;
    QMetaObject::invokeMethod(owner, [done = std::move(done)] { done(); }, Qt::QueuedConnection);
}

const char *trackName(int source)
{
    static const char *const names[] = {"mic", "sys", "room"};
    return names[source];
}
} // namespace

Recorder::Recorder(AudioBackend &backend, CameraBackend &cameras, Clock &clock, QObject *parent)
    : QObject(parent)
    , m_backend(backend)
    , m_cameraBackend(cameras)
    , m_clock(clock)
    , m_micW(std::make_unique<TrackWriter>(QStringLiteral("mic")))
    , m_sysW(std::make_unique<TrackWriter>(QStringLiteral("sys")))
    , m_roomW(std::make_unique<TrackWriter>(QStringLiteral("room")))
    , m_micLive(std::make_unique<LiveConverter>())
    , m_sysLive(std::make_unique<LiveConverter>())
    , m_sync(std::make_unique<SyncGate>(clock))
    , m_videoQ(std::make_unique<SerialQueue>(QStringLiteral("brava.recorder.video")))
    , m_q(std::make_unique<SerialQueue>(QStringLiteral("brava.recorder.audio")))
{
    for (auto &d : m_drift)
        d = std::make_unique<DriftCorrector>();
    m_sync->onLock = [this](MediaTime t0) { lockStart(t0); };
    schedule = [this](int ms, std::function<void()> action) { QTimer::singleShot(ms, this, std::move(action)); };
    m_backend.watch([this] { QMetaObject::invokeMethod(this, [this] { outputChanged(); }, Qt::QueuedConnection); });

    CameraManager::Hooks hooks;
    hooks.allowed = [this] { return cameraAllowed(); };
    hooks.enabled = [this] { return m_camerasEnabled.load(); };
    hooks.running = [this] { return m_capturing.load(); };
    hooks.gateCam = [this](MediaTime t) { return syncGate(QStringLiteral("cam"), t); };
    hooks.previewing = [this] { return previewing.load(); };
    hooks.previewHd = [this] { return previewHd.load(); };
    hooks.previewCamUID = [this] { return previewCamUID(); };
    hooks.savedCamUID = [] { return Config::camUID(); };
    m_cameras = std::make_unique<CameraManager>(*m_videoQ, std::move(hooks), cameras, clock);
    m_cameras->onPreviewFrame = [this](const QByteArray &jpeg) {
        if (onPreviewFrame)
            onPreviewFrame(jpeg);
    };
}

Recorder::~Recorder()
{
    m_backend.watch(nullptr);
    for (auto &cap : m_caps)
        cap.reset(); // no more blocks arrive
    m_q->sync([this] { m_capturing = false; }); // from here on no sample reaches the start sync
    m_cameras.reset(); // stops the cameras on videoQ; no frame arrives after this
    // Drain the queues while writers and converters still exist. Open segments are finished by
    // the writers' destructors and stay in "writing" for the uploader's recovery.
    m_q.reset();
    m_videoQ.reset();
}

void Recorder::start(const std::optional<QString> &session, std::function<void()> done)
{
    if (m_running) {
        QPointer<Recorder> self(this);
        stop([self, session, done = std::move(done)]() mutable {
            if (self)
                self->start(session, std::move(done));
        });
        return;
    }
    setLastError(std::nullopt);
    m_currentTake = QDateTime::currentMSecsSinceEpoch();
    const qint64 take = m_currentTake;
    const QString forwarded = session.value_or(QString());
    m_q->sync([&] {
        for (TrackWriter *w : {m_micW.get(), m_sysW.get(), m_roomW.get()}) {
            w->begin(session, take);
            w->onSegmentDone = [this, forwarded](const QString &path) {
                if (onSegmentDone)
                    onSegmentDone(path, forwarded);
            };
        }
    });
    beginCameraWriters(session, take);
    m_session = session;
    resetSync(cameraExpected(session));
    m_running = true;
    m_capturing = true;
    startSystemAudio();
    startMic();
    startRoomMic();
    ensureCamera();
    bravaLog(QStringLiteral("capture started session=") + session.value_or(QStringLiteral("TEST")));
    finishLater(this, std::move(done));
}

void Recorder::stop(std::function<void()> done)
{
    if (!m_running) {
        finishLater(this, std::move(done));
        return;
    }
    m_running = false;
    ++m_retryToken; // a pending computer-audio retry is void
    for (auto &cap : m_caps)
        cap.reset(); // blocks already handed over are still written below
    m_q->sync([this] {
        // Audio still held for placing goes to the gate in time order, as it would have come.
        std::vector<TimedSample> held[3];
        size_t next[3] = {0, 0, 0};
        for (Source source : {Mic, Sys, Room})
            held[source] = m_drift[source]->flush();
        for (;;) {
            int first = -1;
            for (int k = 0; k < 3; ++k)
                if (next[k] < held[k].size() && (first < 0 || held[k][next[k]].pts < held[first][next[first]].pts))
                    first = k;
            if (first < 0)
                break;
            write(Source(first), {held[first][next[first]++]});
        }
        m_capturing = false;
        for (TrackWriter *w : {m_micW.get(), m_sysW.get(), m_roomW.get()}) {
            w->close(true);
            w->clearSession();
        }
    });
    closeCameraWriters();
    stopCamerasIfDisabled();
    m_session.reset();
    bravaLog(QStringLiteral("capture stopped"));
    finishLater(this, std::move(done));
}

void Recorder::restartMic()
{
    if (!m_caps[Mic])
        return;
    m_caps[Mic].reset();
    startMic();
    startRoomMic();
}

// ---- Sources ---------------------------------------------------------------------------------

std::unique_ptr<AudioCapture> Recorder::openSource(Source source, const QString &name, int channels, QString *error)
{
    const int generation = ++m_generation[source];
    AudioBackend::Handlers handlers;
    handlers.onBuffer = [this, source, generation](AudioBuffer &&buffer) {
        m_q->async([this, source, generation, b = std::move(buffer)] { onAudio(source, generation, b); });
    };
    handlers.onFailed = [this, source, generation](const QString &reason) {
        QMetaObject::invokeMethod(
            this,
            [this, source, generation, reason] {
                if (generation != m_generation[source])
                    return; // an older stream
                if (source == Sys) {
                    systemAudioStopped(reason);
                } else {
                    bravaLog(QString::fromLatin1(source == Mic ? "mic stopped: " : "computer mic stopped: ") + reason);
                    if (source == Mic)
                        setLastError(kMicUnavailable);
                }
            },
            Qt::QueuedConnection);
    };
    return m_backend.open(name, kCaptureRate, channels, std::move(handlers), error);
}

void Recorder::startMic()
{
    if (m_backend.access() == AudioBackend::Access::Refused) {
        setLastError(kMicBlocked, Blocked::Microphone);
        return;
    }
    const std::optional<Device> mic = DeviceChoice::pickMic(m_backend.inputs(), Config::micUID());
    if (!mic) {
        setLastError(kNoMic);
        return;
    }
    {
        QMutexLocker lock(&m_textMutex);
        m_micName = mic->name;
        m_micUID = mic->uid;
    }
    QString error;
    m_caps[Mic] = openSource(Mic, mic->uid, 1, &error);
    if (!m_caps[Mic]) {
        setLastError(kNoMic); // a device that cannot be opened is no usable microphone
        bravaLog(QStringLiteral("mic error: ") + mic->name + QStringLiteral(": ") + error);
        return;
    }
    bravaLog(QStringLiteral("mic: ") + mic->name);
}

void Recorder::startRoomMic()
{
    m_caps[Room].reset();
    {
        QMutexLocker lock(&m_textMutex);
        m_roomName.clear();
    }
    const std::optional<Device> room = m_backend.access() == AudioBackend::Access::Refused
        ? std::nullopt
        : DeviceChoice::pickRoomMic(m_backend.inputs(), micUID());
    if (!room) {
        bravaLog(QStringLiteral("computer mic: none"));
        return;
    }
    QString error;
    m_caps[Room] = openSource(Room, room->uid, 1, &error);
    if (!m_caps[Room])
        return; // optional: no log, no error
    {
        QMutexLocker lock(&m_textMutex);
        m_roomName = room->name;
    }
    bravaLog(QStringLiteral("computer mic: ") + room->name);
}

void Recorder::startSystemAudio()
{
    if (m_backend.access() == AudioBackend::Access::Refused) {
        setLastError(kSysBlocked, Blocked::ComputerAudio);
        bravaLog(QStringLiteral("computer audio error: the sound server refused this program"));
        return;
    }
    QString reason;
    const std::optional<QString> monitor = m_backend.outputMonitor(&reason);
    if (!monitor) {
        setLastError(reason, reason == kSysBlocked ? Blocked::ComputerAudio : Blocked::None);
        return;
    }
    QString error;
    m_sysMonitor = *monitor;
    m_caps[Sys] = openSource(Sys, *monitor, 2, &error);
    if (!m_caps[Sys]) {
        setLastError(kSysBlocked, Blocked::ComputerAudio);
        bravaLog(QStringLiteral("computer audio error: ") + error);
    }
}

void Recorder::outputChanged()
{
    // Computer audio follows the default output (headphones plugged in mid-call, say): the
    // customer is heard on the new one. A vanished output ends its stream and is handled there.
    if (!m_running)
        return;
    QString reason;
    const std::optional<QString> monitor = m_backend.outputMonitor(&reason);
    if (!monitor || (m_caps[Sys] && *monitor == m_sysMonitor))
        return;
    bravaLog(QStringLiteral("computer audio: following the output to ") + *monitor);
    ++m_retryToken; // a pending retry of the old output is void
    m_caps[Sys].reset();
    startSystemAudio();
    const std::optional<QString> error = lastError();
    if (m_caps[Sys] && (error == kSysStopped || error == QStringLiteral("No audio output found")))
        setLastError(std::nullopt);
}

void Recorder::systemAudioStopped(const QString &reason)
{
    bravaLog(QStringLiteral("computer audio stopped: ") + reason);
    setLastError(kSysStopped);
    m_caps[Sys].reset();
    if (!m_running)
        return;
    const int token = m_retryToken;
    QPointer<Recorder> self(this);
    schedule(2000, [self, token] { // one retry per stop event
        if (self && self->m_running && token == self->m_retryToken && !self->m_caps[Sys])
            self->startSystemAudio();
    });
}

// ---- Samples (on q) ----------------------------------------------------------------------------

void Recorder::onAudio(Source source, int generation, const AudioBuffer &buffer)
{
    assert(m_q->isCurrent());
    if (generation != m_generation[source])
        return; // a block of a device that has been closed since
    if (m_driftGeneration[source] != generation) {
        write(source, m_drift[source]->flush()); // the previous device's last audio
        m_driftGeneration[source] = generation;
    }
    write(source, m_drift[source]->process(buffer));
    if (source == Room)
        return; // the room microphone has no live audio and no level
    LiveConverter &live = source == Mic ? *m_micLive : *m_sysLive;
    const std::optional<QByteArray> pcm = live.process(reinterpret_cast<const float *>(buffer.pcm.constData()),
                                                       buffer.frames(), buffer.rate, buffer.channels, listening);
    if (pcm && onLiveAudio)
        onLiveAudio(source == Mic ? 0 : 1, *pcm);
}

void Recorder::write(Source source, const std::vector<TimedSample> &samples)
{
    TrackWriter *writer = source == Mic ? m_micW.get() : source == Sys ? m_sysW.get() : m_roomW.get();
    const QString track = QString::fromLatin1(trackName(source));
    for (const TimedSample &sample : samples) {
        if (m_capturing && syncGate(track, sample.pts))
            writer->append(sample);
    }
}

// ---- Start sync ---------------------------------------------------------------------------------

void Recorder::resetSync(bool expectCam)
{
    m_sync->reset(expectCam);
}

bool Recorder::syncGate(const QString &track, MediaTime time)
{
    return m_sync->pass(track, time);
}

void Recorder::lockStart(MediaTime t0)
{
    // Under the gate's lock: every writer of the take starts at T0.
    for (TrackWriter *w : {m_micW.get(), m_sysW.get(), m_roomW.get()})
        w->setOpenAt(t0);
    std::lock_guard lock(m_syncedMutex);
    for (SegmentWriter *w : m_synced)
        w->setOpenAt(t0);
    m_cameras->lockAt(t0);
}

void Recorder::addSyncedWriter(SegmentWriter *writer)
{
    std::lock_guard lock(m_syncedMutex);
    if (std::find(m_synced.begin(), m_synced.end(), writer) == m_synced.end())
        m_synced.push_back(writer);
}

void Recorder::removeSyncedWriter(SegmentWriter *writer)
{
    std::lock_guard lock(m_syncedMutex);
    m_synced.erase(std::remove(m_synced.begin(), m_synced.end(), writer), m_synced.end());
}

// ---- Camera hooks ---------------------------------------------------------------------------

bool Recorder::cameraExpected(const std::optional<QString> &session) const
{
    return session.has_value() && m_camerasEnabled && hasCamera();
}

void Recorder::beginCameraWriters(const std::optional<QString> &session, qint64 take)
{
    const QString forwarded = session.value_or(QString());
    m_videoQ->sync([&] {
        m_cameras->onSegmentDone = [this, forwarded](const QString &path) {
            if (onSegmentDone)
                onSegmentDone(path, forwarded);
        };
        m_cameras->beginTake(session, take);
    });
}

void Recorder::ensureCamera()
{
    if (!cameraAllowed())
        return;
    CameraManager *cameras = m_cameras.get(); // jobs run before the manager is destroyed
    m_videoQ->async([cameras] { cameras->build(); }); // does nothing while a camera runs
}

void Recorder::shutCamera()
{
    previewing = false;
    CameraManager *cameras = m_cameras.get();
    m_videoQ->async([this, cameras] {
        if (!m_camerasEnabled && !setupCameraAllowed)
            cameras->shut();
    });
}

void Recorder::restartCamera()
{
    CameraManager *cameras = m_cameras.get();
    m_videoQ->async([cameras] { cameras->restart(); });
}

void Recorder::closeCameraWriters()
{
    m_videoQ->sync([this] { m_cameras->endTake(); });
}

void Recorder::stopCamerasIfDisabled()
{
    // With cameras enabled the camera keeps running between takes so that preview stays available.
    CameraManager *cameras = m_cameras.get();
    if (!m_camerasEnabled)
        m_videoQ->async([cameras] { cameras->shut(); });
}

// ---- State for the controller ----------------------------------------------------------------

void Recorder::setCamerasEnabled(bool on)
{
    m_camerasEnabled = on;
    if (on)
        ensureCamera();
    else if (!setupCameraAllowed)
        shutCamera();
    bravaLog(QStringLiteral("Go Live ") + (on ? QStringLiteral("ON") : QStringLiteral("OFF")) + QStringLiteral(" by control"));
}

void Recorder::endSetupCamera()
{
    setupCameraAllowed = false;
    if (!m_camerasEnabled)
        shutCamera();
}

QString Recorder::previewCamUID() const
{
    QMutexLocker lock(&m_textMutex);
    return m_previewCamUID;
}

void Recorder::setPreviewCamUID(const QString &uid)
{
    QMutexLocker lock(&m_textMutex);
    m_previewCamUID = uid;
}

std::optional<QString> Recorder::lastError() const
{
    QMutexLocker lock(&m_textMutex);
    return m_lastError;
}

void Recorder::setLastError(const std::optional<QString> &error, Blocked kind)
{
    QMutexLocker lock(&m_textMutex);
    m_lastError = error;
    m_blocked = error ? kind : Blocked::None;
}

Recorder::Blocked Recorder::blocked() const
{
    QMutexLocker lock(&m_textMutex);
    return m_blocked;
}

std::optional<QString> Recorder::camError() const
{
    return m_cameras->camError();
}

QString Recorder::micName() const
{
    QMutexLocker lock(&m_textMutex);
    return m_micName;
}

QString Recorder::micUID() const
{
    QMutexLocker lock(&m_textMutex);
    return m_micUID;
}

QString Recorder::roomName() const
{
    QMutexLocker lock(&m_textMutex);
    return m_roomName;
}

Recorder::Levels Recorder::takeLevels()
{
    Levels levels;
    m_q->sync([&] {
        levels.mic = m_micLive->takePeak();
        levels.sys = m_sysLive->takePeak();
    });
    return levels;
}

QList<Device> Recorder::mics() const
{
    return m_backend.inputs();
}

std::optional<Device> Recorder::pickMic() const
{
    return DeviceChoice::pickMic(mics(), Config::micUID());
}

bool Recorder::hasCamera() const { return !cameras().isEmpty(); }
bool Recorder::camRunning() const { return m_cameras->camRunning(); }
QList<Device> Recorder::cameras() const { return m_cameraBackend.list(); }
