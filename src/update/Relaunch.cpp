#include "Relaunch.h"

#include "UpdatePolicy.h"

#include <QProcess>

namespace Relaunch {

QString shellQuoted(const QString &text)
{
    QString inner = text;
    inner.replace(QLatin1Char('\''), QLatin1String("'\\''"));
    return QLatin1Char('\'') + inner + QLatin1Char('\'');
}

QString script(qint64 pid, const QString &executable)
{
    return QStringLiteral("while kill -0 %1 2>/dev/null; do sleep 0.2; done; exec %2 >/dev/null 2>&1")
        .arg(pid)
        .arg(shellQuoted(executable));
}

bool start(qint64 pid, const QString &executable)
{
    return QProcess::startDetached(QStringLiteral("/bin/sh"), {QStringLiteral("-c"), script(pid, executable)});
}

bool newBuild(const QString &onDisk, const QString &running)
{
    return !onDisk.isEmpty() && UpdatePolicy::newer(onDisk, running);
}

} // namespace Relaunch
