#include "LogOnce.h"

#include "BravaLog.h"

bool LogOnce::log(const QString &message, const QString &subject)
{
    {
        QMutexLocker lock(&m_mutex);
        const auto it = m_logged.constFind(subject);
        if (it != m_logged.cend() && *it == message)
            return false;
        m_logged.insert(subject, message);
    }
    bravaLog(message);
    return true;
}

void LogOnce::clear(const QString &subject)
{
    QMutexLocker lock(&m_mutex);
    m_logged.remove(subject);
}

QString LogOnce::last(const QString &subject) const
{
    QMutexLocker lock(&m_mutex);
    return m_logged.value(subject);
}
