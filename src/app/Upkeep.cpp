#include "Upkeep.h"

#include "BravaLog.h"
#include "BuildInfo.h"
#include "Relaunch.h"

#include <QCoreApplication>
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
    , m_read(new QFutureWatcher<std::optional<QString>>(this))
    , m_hadFile(build.fromFile())
{
    Q_ASSERT(m_busy);
    m_timer->setInterval(kVersionCheckMs);
    connect(m_timer, &QTimer::timeout, this, &Upkeep::checkForNewVersion);
    connect(m_read, &QFutureWatcher<std::optional<QString>>::finished, this, [this] { onInstalledBuild(m_read->result()); });
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
    m_read->setFuture(QtConcurrent::run([path = m_infoPath]() -> std::optional<QString> {
        if (!QFileInfo::exists(path))
            return std::nullopt;
        return BuildInfo::readKey(path, QStringLiteral("CFBundleVersion"));
    }));
}

bool Upkeep::checking() const
{
    return m_checking;
}

void Upkeep::onInstalledBuild(const std::optional<QString> &onDisk)
{
    m_checking = false;
    if (!onDisk) {
        onRemoved();
        return;
    }
    m_goneChecks = 0;
    if (!Relaunch::newBuild(*onDisk, m_runningBuild))
        return;
    if (m_busy()) {
        if (m_waitSaid != *onDisk)
            bravaLog(QStringLiteral("new version on disk (") + *onDisk + QStringLiteral(") — relaunching once the agent is idle"));
        m_waitSaid = *onDisk;
        return;
    }
    bravaLog(QStringLiteral("new version on disk (") + *onDisk + QStringLiteral(") — relaunching"));
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
