#include "AppDelegate.h"

#include "BravaLog.h"
#include "CameraBackend.h"
#include "Clock.h"
#include "Config.h"
#include "Heartbeat.h"
#include "LoginItem.h"
#include "Reconciler.h"

#include <QCoreApplication>
#include <QMessageBox>
#include <QPointer>

AppDelegate::AppDelegate(AudioBackend &audio, CameraBackend &cameras, Clock &clock, QObject *parent)
    : QObject(parent)
    , m_permissions(audio, [&cameras] { return cameras.access(); })
    , m_checkIn(m_net, [this] { return permissionFlags(); }, [&clock] { return clock.nowNs() / 1000000; })
    , m_roster(m_net)
    , m_discovery(m_net)
    , m_events(m_net)
    , m_actions(m_events)
    , m_recorder(audio, cameras, clock)
    , m_commands(m_recorder, m_conn, m_roster, m_wizardOpen)
    , m_status(m_recorder, m_conn, m_uploader, [this] { return m_commands.live(); }, [this] { return m_actions.onCall(); })
    , m_upkeep([this] { return updateBusy(); })
{
    m_commands.onChanged = [this] { m_status.refresh(); };
    m_commands.onSetupNeeded = [this] { showWizard(); };
    m_commands.onReplaced = [this] { showReplacedAlert(); };
    m_commands.onWhisper = [this](const QString &text, int seat, const QString &from) { m_whisper.show(text, seat, from); };
    m_actions.onCallChanged = [this] { m_status.redraw(); };
    m_actions.onConfirm = [this](const QString &text) { m_status.flashStatus(text); };
    m_tick.setInterval(kTickMs);
    connect(&m_tick, &QTimer::timeout, this, &AppDelegate::tick);
}

AppDelegate::~AppDelegate()
{
    // Timers first; the members' order does the rest (see the declarations).
    m_tick.stop();
    m_upkeep.stop();
    m_checkIn.stop();
    m_conn.onCommand = nullptr;
    m_conn.onChange = nullptr;
}

CheckIn::Flags AppDelegate::permissionFlags() const
{
    using S = Permissions::Status;
    return CheckIn::Flags{m_permissions.microphone() == S::Authorized, m_permissions.camera() == S::Authorized,
                          m_permissions.computerAudio() == S::Authorized};
}

void AppDelegate::applicationDidFinishLaunching()
{
    bravaLog(QStringLiteral("start: Brava Recorder %1 (build %2)").arg(Config::version(), Config::buildNumber()));

    // 1. The status item.
    m_status.show([](StatusMenu::Action a) { return canPerform(a); }, [this](StatusMenu::Action a) { perform(a); });

    // 2–3. Recorder and link.
    wireRecorder();
    QPointer<AppDelegate> self(this);
    m_conn.onCommand = [self](const QJsonObject &c) {
        if (self)
            self->m_commands.handle(c);
    };
    m_conn.onChange = [self] {
        if (self)
            self->linkChanged();
    };

    // 4. Uploads, check-in and the mentor roster.
    m_uploader.start();
    m_checkIn.poke(true);
    m_checkIn.start();
    m_roster.fetch();

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
    m_tick.start();
    m_upkeep.start();

    m_status.refresh();
}

void AppDelegate::wireRecorder()
{
    // Segments finish on a writer thread; the upload queue takes them on the main thread.
    Uploader *uploader = &m_uploader;
    m_recorder.onSegmentDone = [uploader](const QString &path, const QString &session) {
        QMetaObject::invokeMethod(uploader, [uploader, path, session] { uploader->enqueue(path, session); },
                                  Qt::QueuedConnection);
    };

    // Live audio and preview arrive on capture threads and go out only while the control room has
    // cameras enabled and no wizard is open. The recorder is destroyed before the link.
    Recorder *rec = &m_recorder;
    Connection *conn = &m_conn;
    const std::atomic<bool> *wizardOpen = &m_wizardOpen;
    m_recorder.onLiveAudio = [rec, conn, wizardOpen](quint8 source, const QByteArray &pcm) {
        if (rec->camerasEnabled() && !*wizardOpen)
            conn->sendLiveAudio(source, pcm);
    };
    m_recorder.onPreviewFrame = [rec, conn, wizardOpen](const QByteArray &jpeg) {
        if (rec->camerasEnabled() && !*wizardOpen)
            conn->sendPreview(jpeg);
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
    m_commands.linkChanged();
    if (m_conn.connected())
        m_checkIn.poke(true);
    m_status.refresh();
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

bool AppDelegate::updateBusy() const
{
    return m_recorder.isRecording() || m_actions.onCall() || m_commands.busy() || m_uploader.pendingCount() >= 1;
}

void AppDelegate::tick()
{
    m_checkIn.poke(false);
    const Recorder::Levels levels = m_recorder.takeLevels();

    Heartbeat::Values v;
    v.updateBusy = updateBusy();
    v.recording = m_recorder.isRecording();
    v.live = m_commands.live();
    v.mic = levels.mic;
    v.sys = levels.sys;
    v.rate = 48000;
    v.cam = m_recorder.hasCamera();
    v.camActive = m_recorder.camRunning();
    v.camError = m_recorder.camError();
    const std::optional<Device> mic = m_recorder.pickMic();
    v.micName = mic ? mic->name : QString();
    v.mics = m_recorder.mics();
    v.cams = m_recorder.cameras();
    v.micUID = Config::micUID();
    v.camUID = Config::camUID();
    v.error = m_recorder.lastError();
    if (!v.error)
        v.error = m_commands.refusal();
    m_conn.sendJSON(Heartbeat::message(v));
    if (m_wizardModel)
        m_wizardModel->tick(levels.mic, levels.sys, m_conn.connected());

    m_status.refresh();
    m_status.showCallTime(m_actions.callSeconds());
    cameraRefusalToSetup();
}

void AppDelegate::cameraRefusalToSetup()
{
    // A camera this user may not open sends the agent to the camera step, once each time it happens.
    const bool refused = m_recorder.cameraRefused();
    if (refused && !m_cameraRefused && !m_wizardOpen) {
        m_permissions.recheckCamera();
        Config::setWizardStep(kCameraStep);
        showWizard();
    }
    m_cameraRefused = refused;
}

bool AppDelegate::canPerform(StatusMenu::Action action)
{
    using A = StatusMenu::Action;
    switch (action) {
    case A::ToggleCall:
    case A::NeedHelp:
    case A::OpenFolder:
    case A::ShowWizard:
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
        m_actions.toggleCall();
        break;
    case A::NeedHelp:
        m_actions.needHelp();
        break;
    case A::OpenFolder:
        m_actions.openFolder();
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
    if (m_wizardWindow && m_wizardOpen) {
        m_wizardWindow->bringToFront();
        return;
    }
    m_wizardWindow.reset(); // one that was closed and is still waiting to go
    m_wizardModel.reset();
    bravaLog(QStringLiteral("setup needed: the setup wizard opens at step %1").arg(Config::wizardStep()));
    m_wizardOpen = true;
    m_wizardModel.reset(new WizardModel({m_recorder, m_permissions, m_conn, m_discovery, m_net}));
    m_wizardModel->onFinish = [this] { finishWizard(); };
    m_wizardModel->onRelaunch = [this] { m_upkeep.relaunchSelf(); };
    m_wizardModel->refreshPermissions(); // the screens show the answers from the start, not one tick later
    m_wizardWindow.reset(new WizardWindow(*m_wizardModel));
    m_wizardWindow->onClosed = [this] { wizardClosed(); };
    m_wizardWindow->bringToFront();
}

void AppDelegate::finishWizard()
{
    m_recorder.endSetupCamera();
    QPointer<AppDelegate> self(this);
    m_recorder.stop([self] {
        if (!self)
            return;
        Config::setSetupDone(true);
        Config::setWizardStep(0);
        if (self->m_wizardWindow)
            self->m_wizardWindow->close();
        self->m_conn.connect();
        self->m_status.refresh();
    });
}

void AppDelegate::wizardClosed()
{
    m_recorder.endSetupCamera();
    m_wizardOpen = false;
    m_recorder.stop(nullptr);
    // This runs inside the window's own close handling: window and model go right after it.
    QMetaObject::invokeMethod(
        this,
        [this, closed = m_wizardWindow.get()] {
            if (m_wizardWindow.get() != closed)
                return; // a new wizard has been opened since
            m_wizardWindow.reset();
            m_wizardModel.reset();
        },
        Qt::QueuedConnection);
}
