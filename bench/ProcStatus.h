#pragma once

#include <QByteArray>
#include <QFile>
#include <QString>

// Memory figures of a process, read from /proc, for the benchmarks.
namespace ProcStatus {

/// A field of /proc/<pid>/status in kB ("VmRSS", "VmHWM"); `pid` "self" for this process; -1 when unreadable.
inline qint64 kb(const char *field, const QString &pid = QStringLiteral("self"))
{
    QFile f(QStringLiteral("/proc/") + pid + QStringLiteral("/status"));
    if (!f.open(QIODevice::ReadOnly))
        return -1;
    const QByteArray prefix = QByteArray(field) + ':';
    for (const QByteArray &line : f.readAll().split('\n'))
        if (line.startsWith(prefix))
            return line.mid(prefix.size()).trimmed().split(' ').value(0).toLongLong();
    return -1;
}

/// Resets this process's peak resident size to the current one, so VmHWM covers what follows.
inline void resetPeak()
{
    QFile f(QStringLiteral("/proc/self/clear_refs"));
    if (f.open(QIODevice::WriteOnly))
        f.write("5");
}

} // namespace ProcStatus
