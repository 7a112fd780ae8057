#pragma once

#include "StatusMenu.h"

#include <QDateTime>
#include <QJsonObject>
#include <QObject>
#include <QString>

class Connection;
class Permissions;
class Reconciler;
class Recorder;
class TrayView;
class QTimer;

// The agent's controller: wires every component at launch, runs the 0.5 s tick (heartbeat, menu,
// widget) and the 10 s check for a newer build on disk, handles the control room's commands and
// shows the agent's state in the tray. Main thread only.
class AppDelegate : public QObject
{
    Q_OBJECT
public:
    /// A controller of this recorder and link, reading these permissions.
    AppDelegate(Recorder &rec, Connection &conn, Permissions &permissions, QObject *parent = nullptr);
    ~AppDelegate() override;

    /// The launch sequence: wiring, login item, link, permission check, timers, first draw.
    void applicationDidFinishLaunching();
    /// Handles one command from the control room.
    void handle(const QJsonObject &command);
    /// One heartbeat: status message, widget and menu.
    void tick();
    /// Redraws the tray when the state fingerprint changed.
    void refresh();
    /// Shows a short confirmation as the status title for 1.6 s.
    void flashStatus(const QString &text);

    /// Opens the setup wizard (at Config.wizardStep).
    void showWizard();
    /// Marks a call as started or ended.
    void toggleCall();
    /// Tells the coaches this agent needs help.
    void needHelp();
    /// Opens the data folder in the file manager.
    void openFolder();
    /// Relaunches when a different build has been installed beside the running one.
    void checkForNewVersion();

    /// Whether updating now would disturb the agent (recording, call, pending work).
    bool updateBusy() const;
    /// Live audio is wanted and capture runs.
    bool live() const;
    /// The state the tray shows.
    StatusMenu::State menuState() const;
    /// Whether the setup wizard is open.
    bool wizardOpen() const { return m_wizardOpen; }

    /// The recorder wishes and the reconciler.
    Reconciler &reconciler() const { return *m_reconciler; }
    /// The tray view.
    TrayView &tray() const { return *m_tray; }
    /// Whether the agent is on a call.
    bool onCall() const { return m_onCall; }

    /// Interval of the heartbeat in milliseconds.
    static constexpr int kTickMs = 500;
    /// Interval of the new-build check in milliseconds.
    static constexpr int kVersionCheckMs = 10000;

private:
    void wireRecorder();
    void linkChanged();
    void applyFinished();
    void kickApply();
    void checkPermissionsAtLaunch();
    void showReplacedAlert();
    void release();
    void relaunchSelf();
    void postEvent(const QString &type, const QList<QPair<QString, QString>> &fields = {});
    void perform(StatusMenu::Action action);
    bool canPerform(StatusMenu::Action action) const;
    int pendingUploads() const;

    Recorder &m_rec;
    Connection &m_conn;
    Permissions &m_permissions;
    Reconciler *m_reconciler = nullptr;
    TrayView *m_tray = nullptr;
    QTimer *m_timer = nullptr;
    QTimer *m_versionTimer = nullptr;
    bool m_wizardOpen = false;
    bool m_onCall = false;
    QDateTime m_callStart;
    QString m_menuKey;
    QString m_runningBuild;
};
