#pragma once

#include <QObject>
#include <QString>

#include <functional>

class BuildInfo;
class QTimer;

// Keeping the installed agent current: every 10 s it looks whether a newer build has been
// installed beside the running one and, when the agent is not busy, relaunches into it. The
// updater and uninstall join here. Main thread only.
class Upkeep : public QObject
{
    Q_OBJECT
public:
    /// Upkeep of the running `build` that never relaunches while `busy` says the agent is busy.
    Upkeep(const BuildInfo &build, std::function<bool()> busy, QObject *parent = nullptr);

    /// Starts the periodic check for a new build.
    void start();
    /// Stops the periodic check.
    void stop();
    /// Relaunches when a different build has been installed beside the running one.
    void checkForNewVersion();
    /// Starts this program again once this process has exited, then quits.
    void relaunchSelf();
    /// Tests only: runs instead of relaunchSelf() when a newer build is found.
    std::function<void()> relaunch;

    /// Interval of the new-build check in milliseconds.
    static constexpr int kVersionCheckMs = 10000;

private:

    std::function<bool()> m_busy;
    QString m_runningBuild;
    QString m_infoPath;
    QTimer *m_timer;
};
