#include "CameraManager.h"

#include "BravaLog.h"
#include "CameraTexts.h"

#include <algorithm>
#include <cassert>

CameraManager::CameraManager(SerialQueue &videoQ, Hooks hooks, CameraBackend &backend, const Clock &clock,
                             int retryMs)
    : m_videoQ(videoQ)
    , m_hooks(std::move(hooks))
    , m_backend(backend)
    , m_throttle(clock)
{
    assert(m_hooks.allowed && m_hooks.enabled && m_hooks.running && m_hooks.gateCam && m_hooks.previewing
           && m_hooks.previewHd && m_hooks.previewCamUID && m_hooks.savedCamUID && m_hooks.access);
    m_camW.onSegmentDone = [this](const QString &path) {
        if (onSegmentDone)
            onSegmentDone(path);
    };
    m_retry = std::make_unique<RetryTicker>(retryMs, [this] {
        m_videoQ.async([this] {
            if (m_hooks.allowed() && !mainRunning())
                build();
        });
    });
}

CameraManager::~CameraManager()
{
    m_retry.reset(); // no new retry; one already queued runs before the job below
    m_videoQ.sync([this] {
        stopMain();
        teardownExtras();
    });
}

void CameraManager::assertOnQueue() const { assert(m_videoQ.isCurrent()); }

QList<Device> CameraManager::list(CameraBackend &backend) { return backend.list(); }

std::optional<Device> CameraManager::pick(CameraBackend &backend, const QString &savedUid)
{
    const QList<Device> cameras = backend.list();
    if (!savedUid.isEmpty()) {
        for (const Device &d : cameras)
            if (d.uid == savedUid)
                return d;
    }
    for (const Device &d : cameras)
        if (d.isDefault)
            return d;
    for (const Device &d : cameras)
        if (d.builtIn)
            return d;
    if (!cameras.isEmpty())
        return cameras.first();
    return std::nullopt;
}

std::optional<QString> CameraManager::camError() const
{
    std::lock_guard lock(m_mutex);
    return m_camError;
}

QString CameraManager::primaryUID() const
{
    std::lock_guard lock(m_mutex);
    return m_primaryUID;
}

bool CameraManager::mainRunning() const
{
    std::lock_guard lock(m_mutex);
    return m_main && m_main->running();
}

// Sets the camera problem; the log line is written only when the problem is new, so retries of
// a camera that stays away do not fill the log.
void CameraManager::fail(const QString &text, const QString &logLine)
{
    {
        std::lock_guard lock(m_mutex);
        if (m_camError == text)
            return;
        m_camError = text;
    }
    if (!logLine.isEmpty())
        bravaLog(logLine);
}

bool CameraManager::camRunning() const
{
    std::lock_guard lock(m_mutex);
    return !m_primaryUID.isEmpty() && m_camError == std::nullopt && m_main && m_main->running();
}

QStringList CameraManager::extraTracks() const
{
    std::lock_guard lock(m_mutex);
    QStringList tracks;
    for (const Extra &e : m_extras)
        tracks << e.writer->track();
    return tracks;
}

std::unique_ptr<NewestFrame> CameraManager::handoffFor(const QString &uid, bool main)
{
    return std::make_unique<NewestFrame>([this](std::function<void()> job) { m_videoQ.async(std::move(job)); },
                                         [this, uid, main](TimedSample frame) {
                                             if (main)
                                                 onMainFrame(frame);
                                             else
                                                 onExtraFrame(uid, frame);
                                         });
}

void CameraManager::build()
{
    assertOnQueue();
    if (!m_hooks.allowed())
        return;
    if (m_main && !m_main->running()) {
        // Unplugged or failed since: a camera that delivers nothing counts as no camera.
        if (!camError())
            bravaLog(QStringLiteral("camera: ") + m_main->name() + QStringLiteral(" stopped; opening again"));
        stopMain();
    }
    if (m_main)
        return;
    buildMain();
}

void CameraManager::buildMain()
{
    const CameraAccess::Status access = m_hooks.access();
    if (access == CameraAccess::Status::Denied) {
        fail(CameraTexts::notAllowed(), QStringLiteral("camera auth=") + QString::number(int(access)));
        return;
    }
    const std::optional<Device> device = pick(m_backend, m_hooks.savedCamUID());
    if (!device) {
        fail(CameraTexts::noneFound(), QString());
        return;
    }
    if (!m_hooks.allowed())
        return; // switched off meanwhile: nothing is started
    // The camera chosen may be running as an extra one (the main camera was unplugged): a device
    // opens once, so the extras are let go first and set up again around the new main camera.
    bool chosenIsExtra = false;
    {
        std::lock_guard lock(m_mutex);
        for (const Extra &e : m_extras)
            chosenIsExtra = chosenIsExtra || e.uid == device->uid;
    }
    if (chosenIsExtra)
        teardownExtras();
    std::unique_ptr<NewestFrame> handoff = handoffFor(device->uid, true);
    NewestFrame *sink = handoff.get();
    CameraOpen open = m_backend.open(device->uid, QSize(kWantWidth, kWantHeight),
                                     [sink](TimedSample frame) { sink->push(std::move(frame)); });
    if (!open.stream) {
        fail(open.error, QStringLiteral("camera: ") + device->name + QStringLiteral(" ") + open.error);
        return;
    }
    // The log line comes before the camera is published, so that whoever sees it running also
    // finds the line in the log.
    const bool running = open.stream->running();
    const QString line = QStringLiteral("camera: ") + device->name + QStringLiteral(" running=");
    if (running)
        bravaLog(line + QStringLiteral("true"));
    {
        std::lock_guard lock(m_mutex);
        m_mainHandoff = std::move(handoff);
        m_main = std::move(open.stream);
        m_primaryUID = device->uid;
        if (running)
            m_camError.reset();
    }
    if (!running)
        fail(CameraTexts::failedToStart(), line + QStringLiteral("false"));
    buildExtras();
}

void CameraManager::buildExtras()
{
    teardownExtras();
    if (!m_hooks.enabled())
        return; // the setup wizard uses the main camera only
    const QString primary = primaryUID();
    int number = 2;
    for (const Device &device : m_backend.list()) {
        if (device.uid == primary)
            continue;
        if (number > kLastExtra)
            break;
        Extra extra;
        extra.uid = device.uid;
        extra.handoff = handoffFor(device.uid, false);
        NewestFrame *sink = extra.handoff.get();
        CameraOpen open = m_backend.open(device.uid, QSize(kWantWidth, kWantHeight),
                                         [sink](TimedSample frame) { sink->push(std::move(frame)); });
        if (!open.stream)
            continue; // an extra camera that cannot be opened is skipped
        const bool running = open.stream->running();
        extra.stream = std::move(open.stream);
        extra.writer = extraWriter(QStringLiteral("cam") + QString::number(number));
        {
            // Under the lock that lockAt takes: either the start is known here, or lockAt sees
            // this camera in the list.
            std::lock_guard lock(m_mutex);
            const bool sameTake = extra.writer->session() == m_session && extra.writer->take() == m_take;
            if (m_session && m_hooks.running() && !sameTake) {
                extra.writer->begin(m_session, m_take);
                if (m_lockedT0)
                    extra.writer->setOpenAt(*m_lockedT0);
            }
            m_extras.push_back(std::move(extra));
        }
        bravaLog(QStringLiteral("extra camera cam") + QString::number(number) + QStringLiteral(": ") + device.name
                 + QStringLiteral(" running=") + (running ? "true" : "false"));
        ++number;
    }
}

void CameraManager::teardownExtras()
{
    std::vector<Extra> extras;
    {
        std::lock_guard lock(m_mutex);
        extras.swap(m_extras);
    }
    for (Extra &e : extras) {
        e.handoff->close();
        e.stream.reset(); // joins the capture thread
        e.writer->close(true); // keeps the take: a camera back in this take continues the numbering
    }
}

VideoWriter *CameraManager::extraWriter(const QString &track)
{
    std::unique_ptr<VideoWriter> &writer = m_extraWriters[track];
    if (!writer) {
        writer = std::make_unique<VideoWriter>(track);
        writer->onSegmentDone = [this](const QString &path) {
            if (onSegmentDone)
                onSegmentDone(path);
        };
    }
    return writer.get();
}

void CameraManager::stopMain()
{
    std::unique_ptr<CameraStream> stream;
    std::unique_ptr<NewestFrame> handoff;
    {
        std::lock_guard lock(m_mutex);
        stream.swap(m_main);
        handoff.swap(m_mainHandoff);
        m_primaryUID.clear();
    }
    if (handoff)
        handoff->close();
    stream.reset();
}

void CameraManager::shut()
{
    assertOnQueue();
    m_camW.close(true); // a camera switched off mid-take ends its track properly
    stopMain();
    teardownExtras();
}

void CameraManager::restart()
{
    assertOnQueue();
    stopMain();
    build();
}

void CameraManager::beginTake(const std::optional<QString> &session, int64_t take)
{
    assertOnQueue();
    std::lock_guard lock(m_mutex);
    m_session = session;
    m_take = take;
    m_lockedT0.reset();
    m_camW.begin(session, take);
    for (Extra &e : m_extras)
        e.writer->begin(session, take);
}

void CameraManager::endTake()
{
    assertOnQueue();
    std::vector<VideoWriter *> attached{&m_camW};
    {
        std::lock_guard lock(m_mutex);
        m_session.reset();
        for (Extra &e : m_extras)
            attached.push_back(e.writer);
    }
    for (auto &[track, writer] : m_extraWriters) {
        // A writer whose camera went away already ended its track then.
        if (std::find(attached.begin(), attached.end(), writer.get()) == attached.end())
            writer->clearSession();
    }
    for (VideoWriter *w : attached) {
        w->close(true);
        w->clearSession();
    }
}

void CameraManager::lockAt(MediaTime t0)
{
    std::lock_guard lock(m_mutex);
    m_lockedT0 = t0;
    m_camW.setOpenAt(t0);
    for (Extra &e : m_extras)
        e.writer->setOpenAt(t0);
}

void CameraManager::onMainFrame(const TimedSample &frame)
{
    if (!m_hooks.allowed())
        return;
    if (m_hooks.running() && m_hooks.gateCam(frame.pts))
        m_camW.append(frame);
    if (m_hooks.previewing()) {
        const QString uid = m_hooks.previewCamUID();
        if (uid.isEmpty() || uid == primaryUID())
            sendPreview(frame);
    }
}

void CameraManager::onExtraFrame(const QString &uid, const TimedSample &frame)
{
    if (!m_hooks.allowed())
        return;
    VideoWriter *writer = nullptr;
    {
        std::lock_guard lock(m_mutex);
        for (Extra &e : m_extras)
            if (e.uid == uid)
                writer = e.writer;
    }
    if (!writer)
        return; // torn down meanwhile
    // Extra cameras wait for the main start sync's lock instead of taking part in it.
    if (m_hooks.running() && writer->openAt())
        writer->append(frame);
    if (m_hooks.previewing() && m_hooks.previewCamUID() == uid)
        sendPreview(frame);
}

void CameraManager::sendPreview(const TimedSample &frame)
{
    if (!frame.frame || !m_throttle.admit())
        return;
    const QByteArray jpeg = m_preview.encode(*frame.frame, m_hooks.previewHd());
    if (!jpeg.isEmpty() && onPreviewFrame)
        onPreviewFrame(jpeg);
}
