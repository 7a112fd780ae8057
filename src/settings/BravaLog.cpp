#include "BravaLog.h"

#include "DataFolder.h"

#include <QDateTime>
#include <QFile>

#include <fcntl.h>
#include <unistd.h>

QString bravaLogEscaped(const QString &message)
{
    QString out;
    out.reserve(message.size());
    for (const QChar c : message) {
        const char16_t u = c.unicode();
        if (u == u'\n')
            out += QLatin1String("\\n");
        else if (u == u'\r')
            out += QLatin1String("\\r");
        else if (u == u'\t')
            out += QLatin1String("\\t");
        else if (u < 0x20 || (u >= 0x7f && u <= 0x9f) || u == 0x2028 || u == 0x2029)
            out += QStringLiteral("\\u%1").arg(uint(u), 4, 16, QLatin1Char('0'));
        else
            out += c;
    }
    return out;
}

QString bravaLogLine(const QString &message, const QDateTime &utc)
{
    // ISO 8601 in UTC with whole seconds: 2026-11-23T00:37:30Z.
    return utc.toUTC().toString(QStringLiteral("yyyy-MM-dd'T'HH:mm:ss'Z'")) + QLatin1Char(' ') + bravaLogEscaped(message);
}

void bravaLog(const QString &message)
{
    const QByteArray bytes = (bravaLogLine(message, QDateTime::currentDateTimeUtc()) + QLatin1Char('\n')).toUtf8();
    // The data folder is made at launch; a line after an uninstall moved it to the Trash goes nowhere
    // rather than bringing the folder back.
    const QByteArray path = QFile::encodeName(DataFolder::pathOf(QStringLiteral("log.txt")));
    // O_APPEND makes each line land whole at the end, even with writers in other threads.
    const int fd = ::open(path.constData(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0)
        return;
    ssize_t ignored = ::write(fd, bytes.constData(), size_t(bytes.size()));
    (void)ignored;
    ::close(fd);
}
