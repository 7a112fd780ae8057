#pragma once

#include "AppUpdates.h"
#include "Uninstaller.h"

#include <QObject>

#include <functional>

class QNetworkAccessManager;

// The controller's side of self-update and uninstall: owns the updater and the uninstaller, hands
// them the controller's busy test and parts, and runs the launch check, the tick's offer and the
// two menu actions. Main thread only.
class Maintenance : public QObject
{
    Q_OBJECT
public:
    /// What the controller lends.
    struct Parts
    {
        QNetworkAccessManager &net;
        std::function<bool()> busy;                                 ///< recording, call, pending work
        std::function<int()> pendingCount;                          ///< uploads not done yet
        std::function<void(std::function<void()>)> stopRecorder;    ///< stops, then calls back
        std::function<void()> beforeRemoving;                       ///< stops timers and uploads
    };

    /// The updater for this build and the uninstaller of these paths.
    Maintenance(Parts parts, AppUpdates::Options build, Uninstaller::Paths paths, QObject *parent = nullptr);

    /// At launch: says when the build carries the test key, then checks for updates (silently).
    void launch();
    /// Every tick: offers a pending release once the agent is idle.
    void tick() { m_updates.offerPending(); }
    /// "Check for Updates…".
    void checkUpdates() { m_updates.check(true); }
    /// "Uninstall Brava Recorder…".
    void uninstall() { m_uninstaller.start(); }

    /// The version as the menu shows it: with " (test key)" on a build with the test key.
    static QString menuVersion(const QString &version);

    AppUpdates &updates() { return m_updates; }
    Uninstaller &uninstaller() { return m_uninstaller; }

private:
    AppUpdates m_updates;
    Uninstaller m_uninstaller;
};
