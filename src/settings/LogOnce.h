#pragma once

#include <QHash>
#include <QMutex>
#include <QString>

// Logs a message for a subject once until the message changes: a fault that repeats with every
// retry or every sample says so when it first happens, again only when it turns into another one,
// and again after clear(). Safe from any thread.
class LogOnce
{
public:
    /// Logs `message` unless it is what was last logged for `subject`; true when it was logged.
    bool log(const QString &message, const QString &subject = QString());
    /// Forgets what was logged for `subject` (the fault cleared): the next message is logged.
    void clear(const QString &subject = QString());
    /// What was last logged for `subject` and not cleared since, "" when nothing.
    QString last(const QString &subject = QString()) const;

private:
    mutable QMutex m_mutex;
    QHash<QString, QString> m_logged;
};
