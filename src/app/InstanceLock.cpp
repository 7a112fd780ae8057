#include "InstanceLock.h"

InstanceLock::InstanceLock(const QString &dataDir)
    : m_file(dataDir + QStringLiteral("/agent.lock"))
{
    // An agent runs for days: its lock is never stale by age, only when its process is gone.
    m_file.setStaleLockTime(0);
}

bool InstanceLock::tryLock()
{
    return m_file.tryLock(0);
}

QString InstanceLock::holder() const
{
    qint64 pid = 0;
    QString host, app;
    if (!m_file.getLockInfo(&pid, &host, &app))
        return QString();
    return QStringLiteral("process %1").arg(pid);
}
