#include "BravaLog.h"

#include "Config.h"

#include <QDateTime>

#include <fcntl.h>
#include <unistd.h>

QString bravaLogLine(const QString &message, const QDateTime &utc)
{
    // ISO 8601 in UTC with whole seconds: 2026-11-23T00:37:30Z.
    return utc.toUTC().toString(QStringLiteral("yyyy-MM-dd'T'HH:mm:ss'Z'")) + QLatin1Char(' ') + message;
}

void bravaLog(const QString &message)
{
    const QByteArray bytes = (bravaLogLine(message, QDateTime::currentDateTimeUtc()) + QLatin1Char('\n')).toUtf8();
    const QByteArray path = QString(Config::dataDir() + QStringLiteral("/log.txt")).toLocal8Bit();
    // O_APPEND makes each line land whole at the end, even with writers in other threads.
    const int fd = ::open(path.constData(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0)
        return;
    ssize_t ignored = ::write(fd, bytes.constData(), size_t(bytes.size()));
    (void)ignored;
    ::close(fd);
}
