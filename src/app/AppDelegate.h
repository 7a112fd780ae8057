#pragma once

#include "AgentActions.h"
#include "AgentEvents.h"
#include "AgentState.h"
#include "AgentWindows.h"
#include "CheckIn.h"
#include "Commands.h"
#include "Connection.h"
#include "Maintenance.h"
#include "MentorRoster.h"
#include "Permissions.h"
#include "Recorder.h"
#include "RoomDiscovery.h"
#include "SetupRoute.h"
#include "StallWatch.h"
#include "StatusMenu.h"
#include "StatusView.h"
#include "Uploader.h"
#include "WhisperCard.h"
#include "Upkeep.h"
#include "WizardModel.h"
#include "WizardWindow.h"

#include <QNetworkAccessManager>
#include <QObject>
#include <QTimer>

#include <atomic>

class AudioBackend;
class BuildInfo;
class Settings;
class CameraBackend;
class Clock;

// The agent's controller and the one owner of its parts: builds the network manager, recorder,
// link, upload queue, check-in, roster, discovery, permissions, command table, status view,
// actions and upkeep, hands each its collaborators, runs the launch sequence and the 0.5 s tick
// (heartbeat, menu, call timer). It keeps the read-only AgentState current (windows listen to it)
// and routes every "back to setup" through its SetupRoute. The tick reads memory only: settings
// are the owned Settings object's, device lists and levels the recorder's caches. Main thread only.
class AppDelegate : public QObject
{
    Q_OBJECT
public:
    /// An agent with these settings and build information, on this sound server, these cameras
    /// and this clock; all outlive it.
    AppDelegate(Settings &settings, const BuildInfo &build, AudioBackend &audio, CameraBackend &cameras, Clock &clock,
                QObject *parent = nullptr);
    /// Stops the timers, then capture (no recorder callback runs afterwards), then the rest.
    ~AppDelegate() override;

    /// The launch sequence: tray, uploads, check-in, roster, login item, link, permission check,
    /// timers, first draw.
    void applicationDidFinishLaunching();
    /// One heartbeat: status message, menu and call timer.
    void tick();
    /// Opens the setup wizard (at the stored wizardStep), or brings it to the front.
    void showWizard();
    /// The program was started again while this agent runs: the setup comes forward while it is
    /// not done, else a short message says the agent is already running (and, on a desktop
    /// without a tray, the agent's menu opens at the pointer).
    void startedAgain();
    /// Opens the agent's menu at `globalPos` (the tray's menu, kept even without a tray).
    void popUpMenu(const QPoint &globalPos);
    /// The wizard's final button: stops the sound check, records that setup is done, closes the
    /// wizard and connects.
    void finishWizard();
    /// The wizard's model and window while it is open, else null.
    WizardModel *wizardModel() const { return m_wizardModel.get(); }
    WizardWindow *wizardWindow() const { return m_wizardWindow.get(); }

    /// The fault the agent shows now (heartbeat "error", tray): the recorder's, else why the floating
    /// windows are missing, else why a whisper card was not shown, else a refused command, else
    /// an event the control room did not take; none when all is well.
    std::optional<QString> error() const;
    /// Whether updating now would disturb the agent (recording, call, pending work).
    bool updateBusy() const;
    /// Whether the setup wizard is open.
    bool wizardOpen() const { return m_wizardOpen; }

    /// The agent's state for windows: read-only, with a signal for each change.
    const AgentState &state() const { return m_state; }
    /// The settings the agent runs with.
    Settings &settings() { return m_settings; }
    /// Where "back to setup" is decided.
    SetupRoute &setupRoute() { return m_setupRoute; }
    /// Brings the AgentState up to date with the parts (announcing what changed).
    void publish();

    /// The parts, for the windows that join later and for tests.
    Recorder &recorder() { return m_recorder; }
    Connection &connection() { return m_conn; }
    Uploader &uploader() { return m_uploader; }
    CheckIn &checkIn() { return m_checkIn; }
    MentorRoster &roster() { return m_roster; }
    RoomDiscovery &discovery() { return m_discovery; }
    Permissions &permissions() { return m_permissions; }
    Commands &commands() { return m_commands; }
    StatusView &status() { return m_status; }
    AgentActions &actions() { return m_actions; }
    Upkeep &upkeep() { return m_upkeep; }
    /// The coach's whisper card.
    WhisperCard &whisper() { return m_whisper; }

    // --- Agent windows: the sale widget, the sale form and the after-call review -------------
    /// The agent's windows.
    AgentWindows &windows() { return m_windows; }
    // ------------------------------------------------------------------------------------------
    Maintenance &maintenance() { return m_maintenance; }

    /// Interval of the heartbeat in milliseconds.
    static constexpr int kTickMs = 500;

private:
    void wireRecorder();
    void linkChanged();
    void checkPermissionsAtLaunch();
    void cameraRefusalToSetup();
    void wireSettings();
    void showReplacedAlert();
    void perform(StatusMenu::Action action);
    static bool canPerform(StatusMenu::Action action);
    CheckIn::Flags permissionFlags() const;
    void wizardClosed();
    bool trayMissing() const;
    Maintenance::Parts maintenanceParts();

    // Read by capture threads before they forward live audio or a preview frame.
    std::atomic<bool> m_wizardOpen{false};
    bool m_cameraRefused = false; // as seen at the last tick

    // Members are destroyed in the reverse order of this list. The network manager, link and
    // upload queue come first so that they outlive the recorder, whose destructor stops capture
    // and guarantees that no callback (segment done, live audio, preview) runs afterwards; the
    // parts that drive the recorder and the timer come after it and so go before it.
    Settings &m_settings;
    const BuildInfo &m_build;
    AgentState m_state;
    SetupRoute m_setupRoute;
    QNetworkAccessManager m_net;
    Connection m_conn;
    Uploader m_uploader;
    Permissions m_permissions;
    CheckIn m_checkIn;
    MentorRoster m_roster;
    RoomDiscovery m_discovery;
    AgentEvents m_events;
    StallWatch m_stall;
    AgentActions m_actions;
    AgentWindows m_windows; // uses the actions and the network manager
    Recorder m_recorder;
    WhisperCard m_whisper; // shown by the command table, so it outlives it
    Commands m_commands;
    StatusView m_status;
    Upkeep m_upkeep;
    // Self-update and uninstall; it stops the recorder, so it goes before it.
    Maintenance m_maintenance;
    // The setup wizard while open; the window goes before its model.
    std::unique_ptr<WizardModel> m_wizardModel;
    std::unique_ptr<WizardWindow> m_wizardWindow;
    QTimer m_tick;
};
