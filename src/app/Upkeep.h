#pragma once

#include <QObject>
#include <QString>

#include <functional>
#include <optional>

class BuildInfo;
class QTimer;
template <typename T> class QFutureWatcher;

// Keeping the installed agent current: every 10 s it looks whether a newer build has been
// installed beside the running one and, when the agent is not busy and the new program file is
// executable and has stayed the same since the check before (a folder still being copied is not
// started half-way), relaunches into it; when this
// copy has been removed from the computer (its build file gone for three checks in a row: a
// package removed, a folder deleted), it quits once the agent is not busy. The
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
    /// Tests only: runs instead of quitting when this copy has been removed.
    std::function<void()> quit;

    /// Interval of the new-build check in milliseconds.
    static constexpr int kVersionCheckMs = 10000;
    /// Checks in a row that must find the build file gone before this copy counts as removed (a
    /// folder being replaced by hand is without it for a moment).
    static constexpr int kGoneChecks = 3;

private:
    // What one check found on disk: the build number (none when the build file is gone) and the
    // program file beside it.
    struct Seen
    {
        std::optional<QString> build;
        qint64 size = -1;
        qint64 modifiedMs = 0;
        bool runnable = false;
        bool operator==(const Seen &) const = default;
    };
    static Seen look(const QString &infoPath, const QString &exePath);
    void onInstalledBuild(const Seen &seen);
    void onRemoved();

    std::function<bool()> m_busy;
    QString m_runningBuild;
    QString m_infoPath;
    QTimer *m_timer;
    QString m_exePath;
    QFutureWatcher<Seen> *m_read;
    std::optional<Seen> m_lastSeen;
    bool m_checking = false;
    bool m_hadFile;
    int m_goneChecks = 0;
    bool m_removedSaid = false;
    QString m_waitSaid; // the newer build already logged as waiting for idle
    QString m_brokenSaid; // the newer build already logged as having no runnable program
};
