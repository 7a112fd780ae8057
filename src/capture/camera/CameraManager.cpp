#include "CameraManager.h"

#include "BravaLog.h"
#include "CameraTexts.h"
#include "Take.h"

CameraManager::CameraManager(SerialQueue &videoQ, CameraBackend &backend, const Clock &clock, int retryMs)
    : m_videoQ(videoQ)
    , m_backend(backend)
    , m_throttle(clock)
{
    m_retry = std::make_unique<RetryTicker>(retryMs, [this] {
        m_videoQ.async([this] {
            if (allowed() && !mainRunning())
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
        m_take.reset();
    });
}

std::optional<Device> CameraManager::pick(const QList<Device> &cameras, const QString &savedUid)
{
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

// ---- Policy (main thread) ---------------------------------------------------------------------

void CameraManager::setEnabled(bool on)
{
    m_enabled = on;
    if (on) {
        ensure();
    } else {
        previewing = false;
        m_videoQ.async([this] {
            if (!allowed())
                shut();
        });
    }
}

void CameraManager::endSetupCamera()
{
    setupAllowed = false;
    m_videoQ.async([this] {
        if (!allowed())
            shut();
    });
}

void CameraManager::ensure()
{
    if (allowed())
        m_videoQ.async([this] { build(); }); // does nothing while a camera runs
}

void CameraManager::restart()
{
    m_videoQ.async([this] {
        stopMain();
        build();
    });
}

bool CameraManager::expectsCamera() const { return m_enabled && !m_backend.list().isEmpty(); }

QString CameraManager::previewCamUID() const
{
    std::lock_guard lock(m_mutex);
    return m_previewCamUID;
}

void CameraManager::setPreviewCamUID(const QString &uid)
{
    std::lock_guard lock(m_mutex);
    m_previewCamUID = uid;
}

void CameraManager::setChosenUID(const QString &uid)
{
    std::lock_guard lock(m_mutex);
    m_chosenUID = uid;
}

void CameraManager::beginTake(std::shared_ptr<Take> take)
{
    m_videoQ.async([this, take = std::move(take)]() mutable { m_take = std::move(take); });
}

void CameraManager::endTake(std::function<void()> done)
{
    m_videoQ.async([this, done = std::move(done)] {
        if (m_take)
            m_take->finishCameras();
        m_take.reset();
        // With cameras enabled the camera keeps running between takes so that preview stays.
        if (!allowed())
            shut();
        if (done)
            done();
    });
}

// ---- State ------------------------------------------------------------------------------------

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
        tracks << e.track;
    return tracks;
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

// ---- Sessions (video queue) -------------------------------------------------------------------

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
    Q_ASSERT(m_videoQ.isCurrent());
    if (!allowed())
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
    m_refused = m_backend.access() == CameraAccess::Status::Denied;
    if (m_refused) {
        fail(CameraTexts::notAllowed(), QStringLiteral("camera: no video device may be opened by this user (not in the video group?)"));
        return;
    }
    QString chosen;
    {
        std::lock_guard lock(m_mutex);
        chosen = m_chosenUID;
    }
    const std::optional<Device> device = pick(m_backend.list(), chosen);
    if (!device) {
        fail(CameraTexts::noneFound(), QString());
        return;
    }
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
    if (!m_enabled)
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
        extra.track = QStringLiteral("cam") + QString::number(number);
        extra.handoff = handoffFor(device.uid, false);
        NewestFrame *sink = extra.handoff.get();
        CameraOpen open = m_backend.open(device.uid, QSize(kWantWidth, kWantHeight),
                                         [sink](TimedSample frame) { sink->push(std::move(frame)); });
        if (!open.stream)
            continue; // an extra camera that cannot be opened is skipped
        const bool running = open.stream->running();
        extra.stream = std::move(open.stream);
        {
            std::lock_guard lock(m_mutex);
            m_extras.push_back(std::move(extra));
        }
        bravaLog(QStringLiteral("extra camera cam") + QString::number(number) + QStringLiteral(": ") + device.name
                 + QStringLiteral(" running=") + (running ? QStringLiteral("true") : QStringLiteral("false")));
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
        if (m_take)
            m_take->endTrack(e.track); // a camera back in this take continues the numbering
    }
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
    Q_ASSERT(m_videoQ.isCurrent());
    if (m_take)
        m_take->endTrack(QStringLiteral("cam")); // a camera switched off mid-take ends its track
    stopMain();
    teardownExtras();
}

void CameraManager::onMainFrame(const TimedSample &frame)
{
    if (!allowed())
        return;
    if (m_take && m_enabled)
        m_take->write(QStringLiteral("cam"), frame);
    if (previewing) {
        const QString uid = previewCamUID();
        if (uid.isEmpty() || uid == primaryUID())
            sendPreview(frame);
    }
}

void CameraManager::onExtraFrame(const QString &uid, const TimedSample &frame)
{
    if (!allowed())
        return;
    QString track;
    {
        std::lock_guard lock(m_mutex);
        for (const Extra &e : m_extras)
            if (e.uid == uid)
                track = e.track;
    }
    if (track.isEmpty())
        return; // torn down meanwhile
    // Extra cameras take the main start sync's common start instead of taking part in it.
    if (m_take && m_enabled)
        m_take->write(track, frame);
    if (previewing && previewCamUID() == uid)
        sendPreview(frame);
}

void CameraManager::sendPreview(const TimedSample &frame)
{
    if (!frame.frame || !m_throttle.admit())
        return;
    const QByteArray jpeg = m_preview.encode(*frame.frame, previewHd);
    if (!jpeg.isEmpty() && onPreviewFrame)
        onPreviewFrame(jpeg);
}
