#include "SessionFolder.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QUrl>

#include <cerrno>
#include <cstring>
#include <sys/stat.h>

namespace SessionFolder {

namespace {
// Encodes one character of a session for a folder name.
QString folderChar(QChar c, bool first)
{
    if (c == QLatin1Char('%') || c == QLatin1Char('/') || c.unicode() < 0x20 || c.unicode() == 0x7f)
        return QLatin1Char('%') + QStringLiteral("%1").arg(c.unicode(), 2, 16, QLatin1Char('0')).toUpper();
    if (c == QLatin1Char('.') && first)
        return QStringLiteral("%2E");
    return QString(c);
}

// A shortened name carries "%h" and a hash: never produced by the encoding itself.
constexpr int kPrefixBytes = 100;
const QString kHashMark = QStringLiteral("%h");

bool isShortened(const QString &folder)
{
    return folder.contains(kHashMark);
}
} // namespace

QString name(const QString &session)
{
    if (session.isEmpty())
        return QStringLiteral("%");
    QString folder;
    folder.reserve(session.size());
    for (qsizetype i = 0; i < session.size(); ++i)
        folder += folderChar(session.at(i), i == 0);
    if (folder.toUtf8().size() <= kMaxFolderBytes)
        return folder;
    // Too long for one file name: a prefix cut at a whole character, then the hash of all of it.
    QString prefix;
    int bytes = 0;
    for (qsizetype i = 0; i < session.size(); ++i) {
        const bool pair = session.at(i).isHighSurrogate() && i + 1 < session.size();
        const QString piece = pair ? session.mid(i, 2) : folderChar(session.at(i), i == 0);
        bytes += int(piece.toUtf8().size());
        if (bytes > kPrefixBytes)
            break;
        prefix += piece;
        i += pair ? 1 : 0;
    }
    const QByteArray hash = QCryptographicHash::hash(session.toUtf8(), QCryptographicHash::Sha256).toHex().left(32);
    return prefix + kHashMark + QString::fromLatin1(hash);
}

QString sessionOf(const QString &folderPath)
{
    const QString name = QFileInfo(folderPath).fileName();
    if (name == QLatin1String("%"))
        return QString();
    if (isShortened(name)) {
        QFile note(folderPath + QLatin1Char('/') + QLatin1String(kSessionNote));
        if (note.open(QIODevice::ReadOnly))
            return QString::fromUtf8(note.readAll());
        // The note is lost: the name's readable part is the best there is.
        return QUrl::fromPercentEncoding(name.left(name.indexOf(kHashMark)).toUtf8());
    }
    return QUrl::fromPercentEncoding(name.toUtf8());
}

QString make(const QString &parent, const QString &session, QString *error)
{
    const QString name = SessionFolder::name(session);
    const QString path = parent + QLatin1Char('/') + name;
    QDir dir(path);
    if (!dir.exists() && !QDir().mkpath(path)) {
        // mkpath gives no reason; mkdir(2) does.
        const int rc = ::mkdir(QFile::encodeName(path).constData(), 0755);
        const int err = errno;
        if (rc != 0 && !(err == EEXIST && QFileInfo(path).isDir())) {
            if (error)
                *error = QString::fromLocal8Bit(std::strerror(err == EEXIST ? ENOTDIR : err));
            return QString();
        }
    }
    if (isShortened(name)) {
        // Written whole or not at all (a crash never leaves half a session behind).
        QSaveFile note(path + QLatin1Char('/') + QLatin1String(kSessionNote));
        if (!QFileInfo::exists(note.fileName())
            && (!note.open(QIODevice::WriteOnly) || note.write(session.toUtf8()) < 0 || !note.commit())) {
            if (error)
                *error = note.errorString();
            return QString();
        }
    }
    return path;
}

bool removeIfEmpty(const QString &path)
{
    const QStringList left = QDir(path).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
    if (!left.isEmpty() && left != QStringList{QLatin1String(kSessionNote)})
        return false;
    if (!left.isEmpty())
        QFile::remove(path + QLatin1Char('/') + QLatin1String(kSessionNote));
    return QDir().rmdir(path);
}

} // namespace SessionFolder
