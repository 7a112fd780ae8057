#include "Upkeep.h"

#include "BravaLog.h"
#include "BuildInfo.h"
#include "Relaunch.h"

#include <QCoreApplication>
#include <QFutureWatcher>
#include <QTimer>
#include <QtConcurrent/QtConcurrentRun>

Upkeep::Upkeep(const BuildInfo &build, std::function<bool()> busy, QObject *parent)
    : QObject(parent)
    , m_busy(std::move(busy))
    , m_runningBuild(build.buildNumber())
    , m_infoPath(build.path())
    , m_timer(new QTimer(this))
    , m_read(new QFutureWatcher<QString>(this))
{
    Q_ASSERT(m_busy);
    m_timer->setInterval(kVersionCheckMs);
    connect(m_timer, &QTimer::timeout, this, &Upkeep::checkForNewVersion);
    connect(m_read, &QFutureWatcher<QString>::finished, this, [this] { onInstalledBuild(m_read->result()); });
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
    m_read->setFuture(QtConcurrent::run([path = m_infoPath] { return BuildInfo::readKey(path, QStringLiteral("CFBundleVersion")); }));
}

bool Upkeep::checking() const
{
    return m_checking;
}

void Upkeep::onInstalledBuild(const QString &onDisk)
{
    m_checking = false;
    if (!Relaunch::newBuild(onDisk, m_runningBuild) || m_busy())
        return;
    bravaLog(QStringLiteral("new version on disk (") + onDisk + QStringLiteral(") — relaunching"));
    if (relaunch)
        relaunch();
    else
        relaunchSelf();
}

void Upkeep::relaunchSelf()
{
    // The executable is quoted for the shell: a folder name with quotes or "$(…)" starts this file.
    Relaunch::start(QCoreApplication::applicationPid(), QCoreApplication::applicationFilePath());
    QCoreApplication::quit();
}
