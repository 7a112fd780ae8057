#include "AudioSources.h"

#include "BravaLog.h"
#include "DeviceChoice.h"

#include <QMutexLocker>
#include <QPointer>
#include <QTimer>

#include <algorithm>

namespace {
constexpr int kCaptureRate = 48000;
constexpr int kRetryMs = 2000;
} // namespace

AudioSources::AudioSources(AudioBackend &backend, AudioPath &path, QObject *parent)
    : QObject(parent)
    , m_backend(backend)
    , m_path(path)
{
    schedule = [this](int ms, std::function<void()> action) { QTimer::singleShot(ms, this, std::move(action)); };
    m_backend.watch([this] { QMetaObject::invokeMethod(this, [this] { serverChanged(); }, Qt::QueuedConnection); });
    refreshDevices();
}

AudioSources::~AudioSources()
{
    m_backend.watch(nullptr);
    close();
}

void AudioSources::open()
{
    Q_ASSERT(!m_open);
    m_open = true;
    m_answering = m_backend.answering();
    if (!m_answering) {
        // Nothing opens now; every source opens when the server answers again.
        bravaLog(AudioFaults::text(AudioFault::ServerSilent));
        setError(AudioFault::ServerSilent);
        return;
    }
    refreshDevices();
    startSystemAudio();
    startMic();
    startRoomMic();
}

void AudioSources::close()
{
    m_open = false;
    ++m_retryToken; // a pending computer-audio retry is void
    for (auto &cap : m_caps)
        cap.reset(); // blocks already handed over are still written
}

void AudioSources::restartMic()
{
    if (!m_open)
        return;
    m_caps[Source::Mic].reset();
    refreshDevices();
    startMic();
    startRoomMic();
}

void AudioSources::refreshDevices()
{
    const QList<Device> inputs = m_backend.inputs();
    QMutexLocker lock(&m_mutex);
    m_inputs = inputs;
}

std::unique_ptr<AudioCapture> AudioSources::openSource(Source source, const QString &name, int channels,
                                                       QString *error)
{
    const int generation = m_path.newStream(source);
    m_stream[source] = generation;
    AudioBackend::Handlers handlers;
    AudioPath *path = &m_path;
    handlers.onBuffer = [path, source, generation](AudioBuffer &&buffer) {
        path->post(source, generation, std::move(buffer));
    };
    // Queued with this object as context: dropped if it is gone by the time the main thread runs it.
    handlers.onFailed = [this, source, generation](const QString &reason) {
        QMetaObject::invokeMethod(
            this,
            [this, source, generation, reason] {
                if (!m_caps[source] || generation != m_stream[source])
                    return; // an older stream
                if (source == Source::Sys) {
                    systemAudioStopped(reason);
                    return;
                }
                bravaLog(QString::fromLatin1(source == Source::Mic ? "mic stopped: " : "computer mic stopped: ") + reason);
                m_caps[source].reset();
                if (source == Source::Mic && m_answering) // else reopened when the server answers
                    setError(AudioFault::MicUnavailable);
            },
            Qt::QueuedConnection);
    };
    return m_backend.open(name, kCaptureRate, channels, std::move(handlers), error);
}

void AudioSources::startMic()
{
    if (m_backend.access() == AudioBackend::Access::Refused) {
        setError(AudioFault::MicBlocked);
        return;
    }
    const std::optional<Device> mic = DeviceChoice::pickMic(mics(), chosenUID());
    if (!mic) {
        setError(AudioFault::NoMic);
        return;
    }
    {
        QMutexLocker lock(&m_mutex);
        m_micName = mic->name;
        m_micUID = mic->uid;
    }
    QString error;
    m_caps[Source::Mic] = openSource(Source::Mic, mic->uid, 1, &error);
    if (!m_caps[Source::Mic]) {
        setError(AudioFault::NoMic); // a device that cannot be opened is no usable microphone
        bravaLog(QStringLiteral("mic error: ") + mic->name + QStringLiteral(": ") + error);
        return;
    }
    bravaLog(QStringLiteral("mic: ") + mic->name);
}

void AudioSources::startRoomMic()
{
    m_caps[Source::Room].reset();
    {
        QMutexLocker lock(&m_mutex);
        m_roomName.clear();
    }
    const std::optional<Device> room = m_backend.access() == AudioBackend::Access::Refused
        ? std::nullopt
        : DeviceChoice::pickRoomMic(mics(), micUID());
    if (!room) {
        bravaLog(QStringLiteral("computer mic: none"));
        return;
    }
    QString error;
    m_caps[Source::Room] = openSource(Source::Room, room->uid, 1, &error);
    if (!m_caps[Source::Room])
        return; // optional: no log, no error
    {
        QMutexLocker lock(&m_mutex);
        m_roomName = room->name;
    }
    bravaLog(QStringLiteral("computer mic: ") + room->name);
}

void AudioSources::startSystemAudio()
{
    if (m_backend.access() == AudioBackend::Access::Refused) {
        setError(AudioFault::ComputerAudioBlocked);
        bravaLog(QStringLiteral("computer audio error: the sound server refused this program"));
        return;
    }
    QString reason;
    const std::optional<QString> monitor = m_backend.outputMonitor(&reason);
    if (!monitor) {
        setError(m_backend.access() == AudioBackend::Access::Refused ? AudioFault::ComputerAudioBlocked
                                                                     : AudioFault::NoOutput);
        return;
    }
    QString error;
    m_sysMonitor = *monitor;
    m_caps[Source::Sys] = openSource(Source::Sys, *monitor, 2, &error);
    if (!m_caps[Source::Sys]) {
        setError(AudioFault::ComputerAudioBlocked);
        bravaLog(QStringLiteral("computer audio error: ") + error);
    }
}

void AudioSources::serverChanged()
{
    refreshDevices();
    if (!m_open)
        return;
    // A sound server that stops answering is one problem, said once; when it answers again every
    // stream that ended meanwhile is opened again.
    const bool answering = m_backend.answering();
    if (answering != m_answering) {
        m_answering = answering;
        if (!answering) {
            bravaLog(AudioFaults::text(AudioFault::ServerSilent));
            setError(AudioFault::ServerSilent);
            return;
        }
        bravaLog(QStringLiteral("sound server answering again"));
        if (fault() == AudioFault::ServerSilent)
            setError(AudioFault::None);
        if (!m_caps[Source::Mic])
            startMic();
        if (!m_caps[Source::Room])
            startRoomMic();
        if (!m_caps[Source::Sys]) {
            ++m_retryToken;
            startSystemAudio();
        }
        return;
    }
    if (!answering)
        return;
    // A microphone whose stream ended comes back when its device is listed again (a sound
    // server that restarted lists its devices some moments after it answers).
    const QString lost = micUID();
    const QList<Device> inputs = mics();
    if (!m_caps[Source::Mic] && !lost.isEmpty()
        && std::any_of(inputs.cbegin(), inputs.cend(), [&](const Device &d) { return d.uid == lost; })) {
        startMic();
        const AudioFault error = fault();
        if (m_caps[Source::Mic] && (error == AudioFault::NoMic || error == AudioFault::MicUnavailable))
            setError(AudioFault::None);
        if (m_caps[Source::Mic] && !m_caps[Source::Room])
            startRoomMic();
    }
    // Computer audio follows the default output (headphones plugged in mid-call, say): the
    // customer is heard on the new one. A vanished output ends its stream and is handled there.
    QString reason;
    const std::optional<QString> monitor = m_backend.outputMonitor(&reason);
    if (!monitor || (m_caps[Source::Sys] && *monitor == m_sysMonitor))
        return;
    bravaLog(QStringLiteral("computer audio: following the output to ") + *monitor);
    ++m_retryToken; // a pending retry of the old output is void
    m_caps[Source::Sys].reset();
    startSystemAudio();
    const AudioFault error = fault();
    if (m_caps[Source::Sys] && (error == AudioFault::ComputerAudioStopped || error == AudioFault::NoOutput))
        setError(AudioFault::None);
}

void AudioSources::systemAudioStopped(const QString &reason)
{
    bravaLog(QStringLiteral("computer audio stopped: ") + reason);
    m_caps[Source::Sys].reset();
    if (!m_answering)
        return; // the server's silence is the error; the stream reopens when it answers
    setError(AudioFault::ComputerAudioStopped);
    if (!m_open)
        return;
    const int token = m_retryToken;
    QPointer<AudioSources> self(this);
    schedule(kRetryMs, [self, token] { // one retry per stop event
        if (self && self->m_open && token == self->m_retryToken && !self->m_caps[Source::Sys])
            self->startSystemAudio();
    });
}

AudioFault AudioSources::fault() const
{
    QMutexLocker lock(&m_mutex);
    return m_fault;
}

void AudioSources::setError(AudioFault fault)
{
    QMutexLocker lock(&m_mutex);
    m_fault = fault;
}

AudioSources::Blocked AudioSources::blocked() const
{
    switch (fault()) {
    case AudioFault::MicBlocked:
        return Blocked::Microphone;
    case AudioFault::ComputerAudioBlocked:
        return Blocked::ComputerAudio;
    default:
        return Blocked::None;
    }
}

QList<Device> AudioSources::mics() const
{
    QMutexLocker lock(&m_mutex);
    return m_inputs;
}

QString AudioSources::micName() const
{
    QMutexLocker lock(&m_mutex);
    return m_micName;
}

QString AudioSources::micUID() const
{
    QMutexLocker lock(&m_mutex);
    return m_micUID;
}

QString AudioSources::chosenUID() const
{
    QMutexLocker lock(&m_mutex);
    return m_chosenUID;
}

void AudioSources::setChosenUID(const QString &uid)
{
    QMutexLocker lock(&m_mutex);
    m_chosenUID = uid;
}

QString AudioSources::roomName() const
{
    QMutexLocker lock(&m_mutex);
    return m_roomName;
}
