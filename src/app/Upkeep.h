#pragma once

#include <QObject>
#include <QString>

#include <functional>

class BuildInfo;
class QTimer;
template <typename T> class QFutureWatcher;

// Keeping the installed agent current: every 10 s it looks whether a newer build has been
// installed beside the running one and, when the agent is not busy, relaunches into it. The
// build file is read on a pool thread, so a slow or hung disk never holds up the main thread; a
// check is skipped while the previous read has not come back. Main thread only.
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
    /// Reads the installed build off the main thread; relaunches when it is newer and the agent idle.
    void checkForNewVersion();
    /// True while a read of the installed build is under way.
    bool checking() const;
    /// Starts this program again once this process has exited, then quits.
    void relaunchSelf();
    /// Tests only: runs instead of relaunchSelf() when a newer build is found.
    std::function<void()> relaunch;

    /// Interval of the new-build check in milliseconds.
    static constexpr int kVersionCheckMs = 10000;

private:
    void onInstalledBuild(const QString &onDisk);

    std::function<bool()> m_busy;
    QString m_runningBuild;
    QString m_infoPath;
    QTimer *m_timer;
    QFutureWatcher<QString> *m_read;
    bool m_checking = false;
};
