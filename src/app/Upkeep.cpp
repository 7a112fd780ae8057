#include "Upkeep.h"

#include "BravaLog.h"
#include "BuildInfo.h"
#include "Relaunch.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QFileInfo>
#include <QFutureWatcher>
#include <QTimer>
#include <QtConcurrent/QtConcurrentRun>

Upkeep::Upkeep(const BuildInfo &build, std::function<bool()> busy, QObject *parent)
    : QObject(parent)
    , m_busy(std::move(busy))
    , m_runningBuild(build.buildNumber())
    , m_infoPath(build.path())
    , m_timer(new QTimer(this))
    , m_exePath(QFileInfo(m_infoPath).absolutePath() + QLatin1Char('/') + QFileInfo(QCoreApplication::applicationFilePath()).fileName())
    , m_read(new QFutureWatcher<Seen>(this))
    , m_hadFile(build.fromFile())
{
    Q_ASSERT(m_busy);
    m_timer->setInterval(kVersionCheckMs);
    connect(m_timer, &QTimer::timeout, this, &Upkeep::checkForNewVersion);
    connect(m_read, &QFutureWatcher<Seen>::finished, this, [this] { onInstalledBuild(m_read->result()); });
}

void Upkeep::start()
{
    m_timer->start();
}

void Upkeep::stop()
{
    m_timer->stop();
}

void Upkeep::checkForNewVersion()
{
    if (m_checking)
        return;
    m_checking = true;
    m_read->setFuture(QtConcurrent::run(&Upkeep::look, m_infoPath, m_exePath));
}

bool Upkeep::checking() const
{
    return m_checking;
}

Upkeep::Seen Upkeep::look(const QString &infoPath, const QString &exePath)
{
    Seen seen;
    if (!QFileInfo::exists(infoPath))
        return seen;
    seen.build = BuildInfo::readKey(infoPath, QStringLiteral("CFBundleVersion"));
    const QFileInfo exe(exePath);
    seen.runnable = exe.isFile() && exe.isExecutable();
    seen.size = exe.size();
    seen.modifiedMs = exe.lastModified().toMSecsSinceEpoch();
    return seen;
}

void Upkeep::onInstalledBuild(const Seen &seen)
{
    m_checking = false;
    const bool settled = m_lastSeen == seen;
    m_lastSeen = seen;
    if (!seen.build) {
        onRemoved();
        return;
    }
    m_goneChecks = 0;
    const QString onDisk = *seen.build;
    if (!Relaunch::newBuild(onDisk, m_runningBuild))
        return;
    if (m_busy()) {
        if (m_waitSaid != onDisk)
            bravaLog(QStringLiteral("new version on disk (") + onDisk + QStringLiteral(") — relaunching once the agent is idle"));
        m_waitSaid = onDisk;
        return;
    }
    if (!seen.runnable) {
        if (m_brokenSaid != onDisk)
            bravaLog(QStringLiteral("new version on disk (") + onDisk + QStringLiteral(") but no program to start at ") + m_exePath
                     + QStringLiteral(" (missing or not executable) — not relaunched"));
        m_brokenSaid = onDisk;
        return;
    }
    if (!settled)
        return; // still being copied, perhaps: the next check decides
    bravaLog(QStringLiteral("new version on disk (") + onDisk + QStringLiteral(") — relaunching"));
    if (relaunch)
        relaunch();
    else
        relaunchSelf();
}

void Upkeep::onRemoved()
{
    if (!m_hadFile || ++m_goneChecks < kGoneChecks)
        return;
    const QString said = QStringLiteral("this copy of Brava Recorder was removed from the computer (") + m_infoPath + QStringLiteral(" is gone) — ");
    if (m_busy()) {
        if (!m_removedSaid)
            bravaLog(said + QStringLiteral("quitting once the agent is idle"));
        m_removedSaid = true;
        return;
    }
    bravaLog(said + QStringLiteral("quitting"));
    stop();
    if (quit)
        quit();
    else
        QCoreApplication::quit();
}

void Upkeep::relaunchSelf()
{
    // The executable is quoted for the shell: a folder name with quotes or "$(…)" starts this file.
    Relaunch::start(QCoreApplication::applicationPid(), QCoreApplication::applicationFilePath());
    QCoreApplication::quit();
}
