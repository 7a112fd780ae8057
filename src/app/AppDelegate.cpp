#include "AppDelegate.h"

#include "BravaLog.h"
#include "CheckIn.h"
#include "Config.h"
#include "Connection.h"
#include "Heartbeat.h"
#include "LoginItem.h"
#include "MentorRoster.h"
#include "Permissions.h"
#include "Reconciler.h"
#include "Recorder.h"
#include "TrayView.h"
#include "Uploader.h"

#include <QApplication>
#include <QDesktopServices>
#include <QJsonValue>
#include <QMessageBox>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QPointer>
#include <QProcess>
#include <QTimer>
#include <QUrl>
#include <QUrlQuery>

namespace {

// Arguments are taken only when they have the expected JSON type; otherwise the default.
QString stringArg(const QJsonObject &c, const char *key, const QString &fallback = QString())
{
    const QJsonValue v = c.value(QLatin1String(key));
    return v.isString() ? v.toString() : fallback;
}

std::optional<QString> optionalString(const QJsonObject &c, const char *key)
{
    const QJsonValue v = c.value(QLatin1String(key));
    return v.isString() ? std::optional<QString>(v.toString()) : std::nullopt;
}

bool boolArg(const QJsonObject &c, const char *key)
{
    const QJsonValue v = c.value(QLatin1String(key));
    return v.isBool() && v.toBool();
}

QNetworkAccessManager &web()
{
    static auto *nam = new QNetworkAccessManager(QCoreApplication::instance());
    return *nam;
}

} // namespace

AppDelegate::AppDelegate(Recorder &rec, Connection &conn, Permissions &permissions, QObject *parent)
    : QObject(parent)
    , m_rec(rec)
    , m_conn(conn)
    , m_permissions(permissions)
    , m_reconciler(new Reconciler(m_rec, this))
{
    m_reconciler->canApply = [this] { return Config::setupDone() && !m_wizardOpen; };
    m_reconciler->onFinished = [this] { applyFinished(); };
}

AppDelegate::~AppDelegate()
{
    m_conn.onCommand = nullptr;
    m_conn.onChange = nullptr;
    m_rec.onSegmentDone = nullptr;
    m_rec.onLiveAudio = nullptr;
    m_rec.onPreviewFrame = nullptr;
}

void AppDelegate::applicationDidFinishLaunching()
{
    m_runningBuild = Config::buildNumber();

    // 1. The status item.
    m_tray = new TrayView(this);
    m_tray->isAvailable = [this](StatusMenu::Action a) { return canPerform(a); };
    m_tray->onAction = [this](StatusMenu::Action a) { perform(a); };

    // 2–3. Recorder and link.
    wireRecorder();
    QPointer<AppDelegate> self(this);
    m_conn.onCommand = [self](const QJsonObject &c) {
        if (self)
            self->handle(c);
    };
    m_conn.onChange = [self] {
        if (self)
            self->linkChanged();
    };

    // 4. Uploads, check-in and the mentor roster.
    Uploader::shared().start();
    CheckIn::setPermissionSource([this] {
        using S = Permissions::Status;
        return CheckIn::Flags{m_permissions.microphone() == S::Authorized, m_permissions.camera() == S::Authorized,
                              m_permissions.computerAudio() == S::Authorized};
    });
    CheckIn::poke(true);
    CheckIn::start();
    MentorRoster::fetch();

    // 5. Start at login.
    LoginItem::registerCurrentUser();

    // 6. The link.
    if (Config::agentID() >= 1)
        m_conn.connect();

    // 7. Permissions, or setup.
    if (Config::setupDone())
        checkPermissionsAtLaunch();
    else
        showWizard();

    // 8–9. Timers.
    m_timer = new QTimer(this);
    m_timer->setInterval(kTickMs);
    connect(m_timer, &QTimer::timeout, this, &AppDelegate::tick);
    m_timer->start();
    m_versionTimer = new QTimer(this);
    m_versionTimer->setInterval(kVersionCheckMs);
    connect(m_versionTimer, &QTimer::timeout, this, &AppDelegate::checkForNewVersion);
    m_versionTimer->start();

    // 12.
    refresh();
}

void AppDelegate::wireRecorder()
{
    // Segments finish on a writer thread; the upload queue takes them on the main thread.
    m_rec.onSegmentDone = [](const QString &path, const QString &session) {
        QMetaObject::invokeMethod(&Uploader::shared(), [path, session] { Uploader::shared().enqueue(path, session); },
                                  Qt::QueuedConnection);
    };

    // Live audio and preview arrive on capture threads; Connection hops them to its own thread.
    // Both are sent only while the control room has cameras enabled and no wizard is open.
    Recorder *rec = &m_rec;
    Connection *conn = &m_conn;
    const bool *wizardOpen = &m_wizardOpen;
    m_rec.onLiveAudio = [rec, conn, wizardOpen](quint8 source, const QByteArray &pcm) {
        if (!rec->camerasEnabled() || *wizardOpen)
            return;
        QByteArray frame;
        frame.reserve(pcm.size() + 1);
        frame.append(char(source));
        frame.append(pcm);
        conn->sendBinary(frame);
    };
    m_rec.onPreviewFrame = [rec, conn, wizardOpen](const QByteArray &jpeg) {
        if (!rec->camerasEnabled() || *wizardOpen)
            return;
        QByteArray frame;
        frame.reserve(jpeg.size() + 1);
        frame.append(char(2));
        frame.append(jpeg);
        conn->sendBinary(frame);
    };
}

void AppDelegate::checkPermissionsAtLaunch()
{
    // Cameras are not asked here: Linux has no prompt, and the device says so when it is opened.
    const Permissions::Status mic = m_permissions.microphone();
    const Permissions::Status screen = m_permissions.computerAudio();
    // Only a definite refusal sends the agent back to setup. No answer is usually a sound server
    // that is not up yet (the agent starts at login, often before it); the recorder reports it
    // when a take starts.
    const bool micMissing = mic == Permissions::Status::Denied;
    const bool screenMissing = screen == Permissions::Status::Denied;
    if (!micMissing && !screenMissing)
        return;
    bravaLog(QStringLiteral("permission missing: mic=%1 screen=%2")
                 .arg(QLatin1String(Permissions::flag(mic)), QLatin1String(Permissions::flag(screen))));
    Config::setWizardStep(micMissing ? 2 : 3);
    showWizard();
}

void AppDelegate::linkChanged()
{
    if (!m_conn.connected() && m_reconciler->wantListen) {
        m_reconciler->wantListen = false;
        kickApply();
    }
    if (m_conn.connected())
        CheckIn::poke(true);
    refresh();
}

void AppDelegate::kickApply()
{
    m_reconciler->kick();
}

void AppDelegate::applyFinished()
{
    refresh();
    const std::optional<QString> error = m_rec.lastError();
    const Recorder::Blocked blocked = m_rec.blocked();
    if (m_rec.running() && error && blocked != Recorder::Blocked::None && !m_wizardOpen) {
        Config::setWizardStep(blocked == Recorder::Blocked::Microphone ? 2 : 3);
        showWizard();
    }
}

void AppDelegate::handle(const QJsonObject &command)
{
    const QJsonValue typeValue = command.value(QStringLiteral("type"));
    if (!typeValue.isString())
        return;
    const QString type = typeValue.toString();
    Reconciler &r = *m_reconciler;

    if (type == QLatin1String("start")) {
        r.desiredSession = optionalString(command, "session");
        kickApply();
    } else if (type == QLatin1String("stop")) {
        r.desiredSession.reset();
        kickApply();
    } else if (type == QLatin1String("listen")) {
        r.wantListen = m_rec.camerasEnabled() && boolArg(command, "on");
        kickApply();
    } else if (type == QLatin1String("preview")) {
        m_rec.previewing = m_rec.camerasEnabled() && boolArg(command, "on");
        m_rec.previewHd = boolArg(command, "hd");
    } else if (type == QLatin1String("cameras")) {
        if (boolArg(command, "on")) {
            m_rec.setCamerasEnabled(true);
        } else {
            r.desiredSession.reset();
            r.wantListen = false;
            m_rec.previewing = false;
            m_rec.setCamerasEnabled(false);
        }
        kickApply();
        refresh();
    } else if (type == QLatin1String("whisper")) {
        const QString text = stringArg(command, "text");
        if (Config::trimSpacesAndTabs(text).isEmpty())
            return;
        const QJsonValue seatValue = command.value(QStringLiteral("seat"));
        const int seat = seatValue.isDouble() ? seatValue.toInt(0) : 0;
        if (MentorRoster::name(seat).isEmpty())
            MentorRoster::fetch();
        // The whisper card plugs in here.
    } else if (type == QLatin1String("setMic")) {
        const std::optional<QString> uid = optionalString(command, "uid");
        if (!uid)
            return;
        Config::setMicUID(*uid);
        m_rec.restartMic();
    } else if (type == QLatin1String("setCam")) {
        m_rec.setPreviewCamUID(stringArg(command, "uid"));
    } else if (type == QLatin1String("quality")) {
        const QString q = stringArg(command, "q", QStringLiteral("full"));
        if (q != Config::uploadQuality()) {
            Config::setUploadQuality(q);
            bravaLog(QStringLiteral("upload quality set to ") + q);
        }
    } else if (type == QLatin1String("release")) {
        release();
    } else if (type == QLatin1String("replaced")) {
        refresh();
        showReplacedAlert();
    }
}

void AppDelegate::release()
{
    m_reconciler->desiredSession.reset();
    m_reconciler->wantListen = false;
    m_rec.stop(nullptr);
    // The rest does not wait for the recorder to finish stopping.
    Config::setAgentID(0);
    Config::setSetupDone(false);
    m_conn.disconnect();
    refresh();
    showWizard();
}

void AppDelegate::showReplacedAlert()
{
    auto *box = new QMessageBox(QMessageBox::Warning, QStringLiteral("Brava Recorder"),
                                QStringLiteral("Agent #%1 is being used on another computer").arg(Config::agentID()));
    box->setInformativeText(QStringLiteral("Run setup again and check your agent number."));
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->setWindowModality(Qt::ApplicationModal);
    box->show();
    box->raise();
    box->activateWindow();
}

bool AppDelegate::live() const
{
    return m_reconciler->wantListen && m_rec.running();
}

int AppDelegate::pendingUploads() const
{
    return Uploader::shared().pendingCount();
}

bool AppDelegate::updateBusy() const
{
    return m_rec.isRecording() || m_onCall || m_reconciler->applying() || m_reconciler->desiredSession.has_value()
           || pendingUploads() >= 1;
}

void AppDelegate::tick()
{
    CheckIn::poke(false);
    const Recorder::Levels levels = m_rec.takeLevels();

    Heartbeat::Values v;
    v.updateBusy = updateBusy();
    v.recording = m_rec.isRecording();
    v.live = live();
    v.mic = levels.mic;
    v.sys = levels.sys;
    v.rate = 48000;
    v.cam = m_rec.hasCamera();
    v.camActive = m_rec.camRunning();
    v.camError = m_rec.camError();
    const std::optional<Device> mic = m_rec.pickMic();
    v.micName = mic ? mic->name : QString();
    v.mics = m_rec.mics();
    v.cams = m_rec.cameras();
    v.micUID = Config::micUID();
    v.camUID = Config::camUID();
    v.error = m_rec.lastError();
    m_conn.sendJSON(Heartbeat::message(v));

    refresh();

    if (m_onCall && m_tray && m_tray->hasCallItem())
        m_tray->setCallTitle(StatusMenu::callTimer(m_callStart.secsTo(QDateTime::currentDateTime())));
}

StatusMenu::State AppDelegate::menuState() const
{
    StatusMenu::State s;
    s.camerasEnabled = m_rec.camerasEnabled();
    s.isRecording = m_rec.isRecording();
    s.live = live();
    s.connected = m_conn.connected();
    s.replaced = m_conn.replaced();
    s.agentID = Config::agentID();
    s.setupDone = Config::setupDone();
    s.pendingCount = pendingUploads();
    s.lastError = m_rec.lastError().value_or(QString());
    s.onCall = m_onCall;
    s.serverLocked = Config::serverLocked();
    s.version = Config::version();
    return s;
}

void AppDelegate::refresh()
{
    if (!m_tray)
        return;
    const StatusMenu::State state = menuState();
    const QString key = StatusMenu::fingerprint(state);
    if (key == m_menuKey)
        return;
    m_menuKey = key;
    m_tray->draw(state);
}

void AppDelegate::flashStatus(const QString &text)
{
    if (m_tray)
        m_tray->flash(text);
    QTimer::singleShot(1600, this, [this] {
        m_menuKey.clear();
        refresh();
    });
}

bool AppDelegate::canPerform(StatusMenu::Action action) const
{
    using A = StatusMenu::Action;
    switch (action) {
    case A::ToggleCall:
    case A::NeedHelp:
    case A::OpenFolder:
    case A::Quit:
        return true;
    default:
        // Sale, review, setup, updates and uninstall arrive with their windows.
        return false;
    }
}

void AppDelegate::perform(StatusMenu::Action action)
{
    using A = StatusMenu::Action;
    switch (action) {
    case A::ToggleCall:
        toggleCall();
        break;
    case A::NeedHelp:
        needHelp();
        break;
    case A::OpenFolder:
        openFolder();
        break;
    case A::ShowWizard:
        showWizard();
        break;
    case A::Quit:
        QCoreApplication::quit();
        break;
    default:
        break;
    }
}

void AppDelegate::showWizard()
{
    // The setup wizard is not part of this build yet: say so once per request.
    bravaLog(QStringLiteral("setup needed (step %1): the setup wizard is not available in this build").arg(Config::wizardStep()));
}

void AppDelegate::toggleCall()
{
    if (!m_onCall) {
        m_onCall = true;
        m_callStart = QDateTime::currentDateTime();
        postEvent(QStringLiteral("call_start"));
    } else {
        m_onCall = false;
        const qint64 secs = m_callStart.msecsTo(QDateTime::currentDateTime()) / 1000;
        postEvent(QStringLiteral("call_end"), {{QStringLiteral("secs"), QString::number(secs)}});
    }
    m_menuKey.clear();
    refresh();
}

void AppDelegate::needHelp()
{
    postEvent(QStringLiteral("help"));
    flashStatus(QStringLiteral("Help sent — coaches alerted"));
}

void AppDelegate::openFolder()
{
    QDesktopServices::openUrl(QUrl::fromLocalFile(Config::dataDir()));
}

void AppDelegate::postEvent(const QString &type, const QList<QPair<QString, QString>> &fields)
{
    if (Config::agentID() < 1)
        return;
    QUrl url(QStringLiteral("http://") + Config::server() + QStringLiteral("/event"));
    QUrlQuery query;
    query.addQueryItem(QStringLiteral("id"), QString::number(Config::agentID()));
    query.addQueryItem(QStringLiteral("type"), type);
    for (const auto &[key, value] : fields)
        if (!value.isEmpty())
            query.addQueryItem(key, value);
    url.setQuery(query);
    if (!url.isValid())
        return;
    QNetworkRequest request(url);
    request.setTransferTimeout(60000);
    QNetworkReply *reply = web().post(request, QByteArray());
    connect(reply, &QNetworkReply::finished, reply, &QObject::deleteLater);
}

void AppDelegate::checkForNewVersion()
{
    const QString onDisk = Config::readInfoKey(Config::infoFilePath(), QStringLiteral("CFBundleVersion"));
    if (onDisk.isEmpty() || onDisk == m_runningBuild || updateBusy())
        return;
    bravaLog(QStringLiteral("new version on disk (") + onDisk + QStringLiteral(") — relaunching"));
    relaunchSelf();
}

void AppDelegate::relaunchSelf()
{
    const QString script = QStringLiteral("while kill -0 %1 2>/dev/null; do sleep 0.2; done; exec \"%2\" >/dev/null 2>&1")
                               .arg(QCoreApplication::applicationPid())
                               .arg(QCoreApplication::applicationFilePath());
    QProcess::startDetached(QStringLiteral("/bin/sh"), {QStringLiteral("-c"), script});
    QCoreApplication::quit();
}
