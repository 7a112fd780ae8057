#include "Upkeep.h"

#include "BravaLog.h"
#include "BuildInfo.h"

#include <QCoreApplication>
#include <QProcess>
#include <QTimer>

Upkeep::Upkeep(const BuildInfo &build, std::function<bool()> busy, QObject *parent)
    : QObject(parent)
    , m_busy(std::move(busy))
    , m_runningBuild(build.buildNumber())
    , m_infoPath(build.path())
    , m_timer(new QTimer(this))
{
    Q_ASSERT(m_busy);
    m_timer->setInterval(kVersionCheckMs);
    connect(m_timer, &QTimer::timeout, this, &Upkeep::checkForNewVersion);
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
    const QString onDisk = BuildInfo::readKey(m_infoPath, QStringLiteral("CFBundleVersion"));
    if (onDisk.isEmpty() || onDisk == m_runningBuild || m_busy())
        return;
    bravaLog(QStringLiteral("new version on disk (") + onDisk + QStringLiteral(") — relaunching"));
    relaunchSelf();
}

void Upkeep::relaunchSelf()
{
    const QString script = QStringLiteral("while kill -0 %1 2>/dev/null; do sleep 0.2; done; exec \"%2\" >/dev/null 2>&1")
                               .arg(QCoreApplication::applicationPid())
                               .arg(QCoreApplication::applicationFilePath());
    QProcess::startDetached(QStringLiteral("/bin/sh"), {QStringLiteral("-c"), script});
    QCoreApplication::quit();
}
