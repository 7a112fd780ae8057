#include "AppDelegate.h"

#include "BravaLog.h"
#include "CameraBackend.h"
#include "Clock.h"
#include "BuildInfo.h"
#include "DataFolder.h"
#include "Heartbeat.h"
#include "LiveConverter.h"
#include "LoginItem.h"
#include "Reconciler.h"
#include "Settings.h"
#include "TrayView.h"

#include <QCoreApplication>
#include <QCursor>
#include <QMenu>
#include <QMessageBox>
#include <QPointer>

AppDelegate::AppDelegate(Settings &settings, const BuildInfo &build, AudioBackend &audio, CameraBackend &cameras,
                         Clock &clock, QObject *parent)
    : QObject(parent)
    , m_settings(settings)
    , m_build(build)
    , m_setupRoute(settings)
    , m_conn(settings, build)
    , m_uploader(settings)
    , m_permissions(audio, [&cameras] { return cameras.access(); })
    , m_checkIn(m_net, settings, build, [this] { return permissionFlags(); }, [&clock] { return clock.nowNs() / 1000000; })
    , m_roster(m_net, build)
    , m_discovery(m_net)
    , m_events(m_net, settings)
    , m_actions(m_events)
    , m_windows(m_actions, m_net, settings, m_state)
    , m_recorder(audio, cameras, clock)
    , m_commands(m_recorder, m_conn, m_roster, settings, m_setupRoute, m_wizardOpen)
    , m_status(m_state)
    , m_upkeep(build, [this] { return updateBusy(); })
    , m_maintenance(maintenanceParts(),
                    {build.serverLocked(), build.webServiceURL(), build.version(), build.bundleIdentifier(),
                     QCoreApplication::applicationDirPath(), build.packageManaged(), {}, {}},
                    {QCoreApplication::applicationDirPath(), DataFolder::dataDir(), settings.path(), LoginItem::entryPath(),
                     build.packageManaged()})
{
    m_commands.onChanged = [this] { publish(); };
    m_commands.onReplaced = [this] { showReplacedAlert(); };
    connect(&m_commands, &Commands::whisper, &m_state, &AgentState::announceWhisper);
    connect(&m_state, &AgentState::whisper, &m_whisper, &WhisperCard::show);
    connect(&m_windows, &AgentWindows::menuAsked, this, &AppDelegate::popUpMenu);
    connect(&m_setupRoute, &SetupRoute::setupNeeded, this, [this](SetupStep::Step step) {
        m_state.announceSetupNeeded(step);
        showWizard();
    });
    m_actions.onCallChanged = [this] {
        publish();
        m_status.redraw();
    };
    m_actions.onConfirm = [this](const QString &text) { m_status.flashStatus(text); };
    m_events.onUndelivered = [this](const QString &type, const QString &) {
        if (type == QLatin1String(Protocol::Event::help)) {
            m_status.flashStatus(QStringLiteral("Help not delivered — the control room can't be reached"));
            m_windows.helpNotSent();
        }
        publish();
    };
    m_tick.setInterval(kTickMs);
    connect(&m_tick, &QTimer::timeout, this, &AppDelegate::tick);
    wireSettings();
    publish();
}

void AppDelegate::wireSettings()
{
    // The recorder opens devices with the choices as they are now; a change applies at the next opening.
    m_recorder.setMicChoice(m_settings.micUID());
    m_recorder.setCamChoice(m_settings.camUID());
    connect(&m_settings, &Settings::micUIDChanged, this, [this](const QString &uid) { m_recorder.setMicChoice(uid); });
    connect(&m_settings, &Settings::camUIDChanged, this, [this](const QString &uid) { m_recorder.setCamChoice(uid); });
    connect(&m_settings, &Settings::agentIDChanged, this, &AppDelegate::publish);
    connect(&m_settings, &Settings::setupDoneChanged, this, &AppDelegate::publish);
}

void AppDelegate::publish()
{
    AgentState::Values v;
    v.linkUp = m_conn.connected();
    v.replaced = m_conn.replaced();
    v.server = m_settings.server();
    v.linkFailure = m_conn.lastFailure();
    v.recording = m_recorder.isRecording();
    v.session = m_recorder.session().value_or(QString());
    v.live = m_commands.live();
    v.previewing = m_recorder.previewing;
    v.camerasEnabled = m_recorder.camerasEnabled();
    v.onCall = m_actions.onCall();
    v.callStart = m_actions.callStart();
    v.pendingCount = m_uploader.pendingCount();
    v.lastError = error().value_or(QString());
    v.agentID = m_settings.agentID();
    v.setupDone = m_settings.setupDone();
    v.serverLocked = m_build.serverLocked();
    v.version = Maintenance::menuVersion(m_build.version());
    v.updateActivity = m_maintenance.updates().activity();
    m_state.update(v);
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
    bravaLog(QStringLiteral("start: Brava Recorder %1 (build %2)").arg(m_build.version(), m_build.buildNumber())
             + (m_build.serverLocked() ? QStringLiteral(", fixed to control room ") + m_build.defaultServer() : QString()));
    if (const QString problem = m_build.webServiceProblem(); !problem.isEmpty())
        bravaLog(problem);

    // 1. The status item.
    m_status.show([](StatusMenu::Action a) { return canPerform(a); }, [this](StatusMenu::Action a) { perform(a); });

    // 2–3. Recorder and link.
    wireRecorder();
    QPointer<AppDelegate> self(this);
    m_conn.onCommand = [self](const QJsonObject &c) {
        if (!self)
            return;
        self->m_commands.handle(c);
        self->publish();
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

    // 5. Start at login: an installed package brings its own entry for every user (which a user
    // switches off in their own copy), so only a copy run from where it was built writes one.
    if (!m_build.packageManaged())
        LoginItem::registerCurrentUser();

    // 6. The link.
    if (m_settings.agentID() >= 1)
        m_conn.open();

    // 7. Permissions, or setup.
    if (m_settings.setupDone())
        checkPermissionsAtLaunch();
    else
        m_setupRoute.need(SetupRoute::Reason::NotSetUp);

    // 8–9. Timers.
    m_tick.start();
    m_upkeep.start();

    // 10–11. The update-busy test is installed (Maintenance) and a locked build checks for updates.
    m_maintenance.launch();

    publish();
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
    m_setupRoute.need(micMissing ? SetupRoute::Reason::MicRefused : SetupRoute::Reason::ComputerAudioRefused);
}

void AppDelegate::linkChanged()
{
    m_commands.linkChanged();
    if (m_conn.connected())
        m_checkIn.poke(true);
    publish();
}

void AppDelegate::showReplacedAlert()
{
    auto *box = new QMessageBox(QMessageBox::Warning, QStringLiteral("Brava Recorder"),
                                QStringLiteral("Agent #%1 is being used on another computer").arg(m_settings.agentID()));
    box->setInformativeText(QStringLiteral("Run setup again and check your agent number."));
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->setWindowModality(Qt::ApplicationModal);
    box->show();
    box->raise();
    box->activateWindow();
}

std::optional<QString> AppDelegate::error() const
{
    if (const std::optional<QString> e = m_recorder.lastError())
        return e;
    if (const QString stall = m_stall.note(Clock::monotonic().nowNs() / 1000000); !stall.isEmpty())
        return stall; // part of the take may be missing
    if (!m_windows.note().isEmpty())
        return m_windows.note(); // no floating windows on this desktop
    if (!m_whisper.note().isEmpty())
        return m_whisper.note(); // the coach's last whisper did not reach the screen
    if (const std::optional<QString> refusal = m_commands.refusal())
        return refusal;
    if (const QString undelivered = m_events.note(); !undelivered.isEmpty())
        return undelivered; // an event the control room did not take
    return std::nullopt;
}

bool AppDelegate::updateBusy() const
{
    return m_recorder.isRecording() || m_actions.onCall() || m_commands.busy() || m_uploader.pendingCount() >= 1
        || m_windows.isUploading();
}

void AppDelegate::tick()
{
    m_stall.beat(Clock::monotonic().nowNs() / 1000000, m_recorder.isRecording());
    m_maintenance.tick();
    m_checkIn.poke(false);
    const Recorder::Levels levels = m_recorder.takeLevels();

    Heartbeat::Values v;
    v.updateBusy = updateBusy();
    v.recording = m_recorder.isRecording();
    v.live = m_commands.live();
    v.mic = levels.mic;
    v.sys = levels.sys;
    v.rate = LiveConverter::kLiveRate;
    v.cam = m_recorder.hasCamera();
    v.camActive = m_recorder.camRunning();
    v.camError = m_recorder.camError();
    const std::optional<Device> mic = m_recorder.pickMic();
    v.micName = mic ? mic->name : QString();
    v.mics = m_recorder.mics();
    v.cams = m_recorder.cameras();
    v.micUID = m_settings.micUID();
    v.camUID = m_settings.camUID();
    v.error = error();
    m_conn.sendJSON(Heartbeat::message(v));
    if (m_wizardModel)
        m_wizardModel->tick(levels.mic, levels.sys, m_conn.connected());

    publish();
    m_status.refresh();
    m_status.showCallTime(m_actions.callSeconds());
    // The panel carries the tray's tooltip: the agent's state is read where the agent looks (and,
    // without a tray, only there).
    m_windows.setTip(m_status.tray()->tip());
    cameraRefusalToSetup();
}

void AppDelegate::cameraRefusalToSetup()
{
    // A camera this user may not open sends the agent to the camera step, once each time it happens.
    const bool refused = m_recorder.cameraRefused();
    if (refused && !m_cameraRefused && !m_wizardOpen) {
        m_permissions.recheckCamera();
        m_setupRoute.need(SetupRoute::Reason::CameraRefused);
    }
    m_cameraRefused = refused;
}

bool AppDelegate::canPerform(StatusMenu::Action action)
{
    using A = StatusMenu::Action;
    switch (action) {
    case A::ToggleCall:
    case A::NeedHelp:
    case A::SnapSale:
    case A::RateCall:
    case A::OpenFolder:
    case A::ShowWizard:
    case A::CheckUpdates:
    case A::Uninstall:
    case A::Quit:
        return true;
    default:
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
    case A::SnapSale:
        m_actions.snapSale();
        break;
    case A::RateCall:
        m_actions.rateCall();
        break;
    case A::OpenFolder:
        m_actions.openFolder();
        break;
    case A::ShowWizard:
        showWizard();
        break;
    case A::CheckUpdates:
        m_maintenance.checkUpdates();
        break;
    case A::Uninstall:
        m_maintenance.uninstall();
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
    bravaLog(QStringLiteral("the setup wizard opens at step %1").arg(m_settings.wizardStep()));
    m_wizardOpen = true;
    m_wizardModel.reset(new WizardModel({m_recorder, m_permissions, m_conn, m_discovery, m_net, m_settings, m_build, !trayMissing()}));
    m_wizardModel->onFinish = [this] { finishWizard(); };
    m_wizardModel->onRelaunch = [this] { m_upkeep.relaunchSelf(); };
    m_wizardModel->refreshPermissions(); // the screens show the answers from the start, not one tick later
    m_wizardWindow.reset(new WizardWindow(*m_wizardModel));
    m_wizardWindow->onClosed = [this] { wizardClosed(); };
    m_wizardWindow->bringToFront();
}

void AppDelegate::startedAgain()
{
    bravaLog(QStringLiteral("started again while running: shown"));
    if (m_wizardOpen || !m_settings.setupDone())
        return showWizard();
    m_status.flashStatus(QStringLiteral("Brava Recorder is already running"));
    if (trayMissing()) // the menu has no tray to open from: it opens where the pointer is
        popUpMenu(QCursor::pos());
}

bool AppDelegate::trayMissing() const
{
    return m_status.tray() && !m_status.tray()->note().isEmpty();
}

void AppDelegate::popUpMenu(const QPoint &globalPos)
{
    if (m_status.tray())
        m_status.tray()->menu()->popup(globalPos);
}

void AppDelegate::finishWizard()
{
    m_recorder.endSetupCamera();
    QPointer<AppDelegate> self(this);
    m_recorder.stop([self] {
        if (!self)
            return;
        self->m_settings.setSetupDone(true);
        self->m_settings.setWizardStep(SetupStep::Welcome);
        if (self->m_wizardWindow)
            self->m_wizardWindow->close();
        self->m_conn.open();
        self->publish();
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

// --- Self-update and uninstall ---------------------------------------------------------------

Maintenance::Parts AppDelegate::maintenanceParts()
{
    return {m_net, [this] { return updateBusy(); }, [this] { return m_uploader.pendingCount(); },
            [this](std::function<void()> done) { m_recorder.stop(std::move(done)); },
            [this] {
                // Nothing may write into the data folder or settings once they are on their way out.
                m_tick.stop();
                m_upkeep.stop();
                m_checkIn.stop();
                m_conn.close();
            }};
}
