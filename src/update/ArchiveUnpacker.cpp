#include "ArchiveUnpacker.h"

#include <QFile>
#include <QSet>
#include <QStringList>

#include <archive.h>
#include <archive_entry.h>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int kMaxPathLength = 4096;
constexpr int kMaxNameLength = 255;

using ArchivePtr = std::unique_ptr<archive, decltype(&archive_read_free)>;

ArchivePtr openZip(const QString &path, QString *error)
{
    ArchivePtr a(archive_read_new(), &archive_read_free);
    archive_read_support_format_zip(a.get());
    if (archive_read_open_filename(a.get(), QFile::encodeName(path).constData(), 1 << 16) != ARCHIVE_OK) {
        *error = QStringLiteral("archive cannot be opened: ") + QString::fromUtf8(archive_error_string(a.get()));
        return ArchivePtr(nullptr, &archive_read_free);
    }
    return a;
}

QString archiveError(archive *a, const QString &what)
{
    const char *text = archive_error_string(a);
    return what + QStringLiteral(": ") + (text ? QString::fromUtf8(text) : QStringLiteral("read error"));
}

QString pathOf(archive_entry *e)
{
    if (const char *utf8 = archive_entry_pathname_utf8(e))
        return QString::fromUtf8(utf8);
    if (const char *raw = archive_entry_pathname(e))
        return QFile::decodeName(raw);
    return QString();
}

QString targetOf(archive_entry *e)
{
    if (const char *utf8 = archive_entry_symlink_utf8(e))
        return QString::fromUtf8(utf8);
    if (const char *raw = archive_entry_symlink(e))
        return QFile::decodeName(raw);
    return QString();
}

// One entry as read from its header, checked; nullopt with the reason otherwise.
std::optional<ArchiveUnpacker::Entry> readEntry(archive_entry *e, QString *error)
{
    using Entry = ArchiveUnpacker::Entry;
    const QString raw = pathOf(e);
    const std::optional<QString> path = ArchiveUnpacker::cleanPath(raw);
    if (!path) {
        *error = QStringLiteral("entry leaves the folder or has a bad name: ") + raw.left(200);
        return std::nullopt;
    }
    Entry entry;
    entry.path = *path;
    entry.mode = archive_entry_mode(e) & 07777;
    entry.size = archive_entry_size(e);
    if (archive_entry_hardlink(e)) {
        *error = QStringLiteral("hard link: ") + entry.path;
        return std::nullopt;
    }
    switch (archive_entry_filetype(e)) {
    case AE_IFREG:
        entry.type = Entry::File;
        break;
    case AE_IFDIR:
        entry.type = Entry::Dir;
        break;
    case AE_IFLNK:
        entry.type = Entry::Link;
        entry.target = targetOf(e);
        if (!ArchiveUnpacker::linkStaysInside(entry.path, entry.target)) {
            *error = QStringLiteral("link leaves the folder: ") + entry.path;
            return std::nullopt;
        }
        break;
    default:
        *error = QStringLiteral("device or special file: ") + entry.path;
        return std::nullopt;
    }
    return entry;
}

// Makes the folders of `relative` below `root`, refusing anything on the way that is not a folder.
bool makeParents(const QString &root, const QString &relative, QString *error)
{
    QString path = root;
    const QStringList parts = relative.split(QLatin1Char('/'));
    for (qsizetype i = 0; i + 1 < parts.size(); ++i) {
        path += QLatin1Char('/') + parts[i];
        const QByteArray native = QFile::encodeName(path);
        struct stat st;
        if (::lstat(native.constData(), &st) == 0) {
            if (!S_ISDIR(st.st_mode)) {
                *error = QStringLiteral("not a folder on the way: ") + relative;
                return false;
            }
        } else if (::mkdir(native.constData(), 0700) != 0) {
            *error = QStringLiteral("cannot make folder: ") + QString::fromLocal8Bit(std::strerror(errno));
            return false;
        }
    }
    return true;
}

bool writeFile(archive *a, const QString &path, unsigned mode, qint64 *budget, QString *error)
{
    const int fd = ::open(QFile::encodeName(path).constData(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) {
        *error = QStringLiteral("cannot create file: ") + QString::fromLocal8Bit(std::strerror(errno));
        return false;
    }
    bool ok = true;
    const void *block;
    size_t size;
    la_int64_t offset;
    for (int rc; ok && (rc = archive_read_data_block(a, &block, &size, &offset)) != ARCHIVE_EOF;) {
        if (rc != ARCHIVE_OK || qint64(size) > *budget || ::pwrite(fd, block, size, offset) != ssize_t(size)) {
            *error = archiveError(a, QStringLiteral("cannot unpack file"));
            ok = false;
            break;
        }
        *budget -= qint64(size);
    }
    if (ok && ::fchmod(fd, mode & 0777) != 0)
        ok = false;
    ::close(fd);
    return ok;
}

} // namespace

std::optional<QString> ArchiveUnpacker::cleanPath(const QString &path)
{
    QString p = path;
    while (p.endsWith(QLatin1Char('/')))
        p.chop(1);
    if (p.isEmpty() || p.size() > kMaxPathLength || p.startsWith(QLatin1Char('/')))
        return std::nullopt;
    for (QChar c : p) {
        if (c.unicode() < 0x20 || c.unicode() == 0x7f || c == QLatin1Char('\\'))
            return std::nullopt;
    }
    for (const QString &part : p.split(QLatin1Char('/'))) {
        if (part.isEmpty() || part == QLatin1String(".") || part == QLatin1String("..")
            || part.toUtf8().size() > kMaxNameLength)
            return std::nullopt;
    }
    return p;
}

bool ArchiveUnpacker::linkStaysInside(const QString &link, const QString &target)
{
    if (target.isEmpty() || target.startsWith(QLatin1Char('/')))
        return false;
    QStringList where = link.split(QLatin1Char('/'));
    where.removeLast(); // the link's own folder
    for (const QString &part : target.split(QLatin1Char('/'))) {
        if (part.isEmpty() || part == QLatin1String("."))
            continue;
        if (part == QLatin1String("..")) {
            if (where.isEmpty())
                return false;
            where.removeLast();
        } else {
            where.append(part);
        }
    }
    return !where.isEmpty(); // a link to the folder itself would make a loop of it
}

bool ArchiveUnpacker::unpack(const QString &archivePath, const QString &into, const Limits &limits,
                             QList<Entry> *entries, QString *error)
{
    entries->clear();
    // Pass 1: every header checked and every byte read (which proves the archive whole) before
    // anything is written.
    {
        ArchivePtr a = openZip(archivePath, error);
        if (!a)
            return false;
        QSet<QString> seen;
        qint64 total = 0;
        archive_entry *e;
        for (int rc; (rc = archive_read_next_header(a.get(), &e)) != ARCHIVE_EOF;) {
            if (rc != ARCHIVE_OK) {
                *error = archiveError(a.get(), QStringLiteral("archive is damaged"));
                return false;
            }
            if (entries->size() >= limits.maxEntries) {
                *error = QStringLiteral("archive has more than %1 entries").arg(limits.maxEntries);
                return false;
            }
            std::optional<Entry> entry = readEntry(e, error);
            if (!entry)
                return false;
            if (seen.contains(entry->path)) {
                *error = QStringLiteral("entry appears twice: ") + entry->path;
                return false;
            }
            seen.insert(entry->path);
            qint64 bytes = 0;
            const void *block;
            size_t size;
            la_int64_t offset;
            for (int r; (r = archive_read_data_block(a.get(), &block, &size, &offset)) != ARCHIVE_EOF;) {
                if (r != ARCHIVE_OK) {
                    *error = archiveError(a.get(), QStringLiteral("archive is damaged"));
                    return false;
                }
                bytes += qint64(size);
                if (total + bytes > limits.maxBytes) {
                    *error = QStringLiteral("archive unpacks to more than %1 bytes").arg(limits.maxBytes);
                    return false;
                }
            }
            total += bytes;
            entry->size = entry->type == Entry::File ? bytes : 0;
            entries->append(*entry);
        }
    }

    // Pass 2: write. Links come last, so that no file is ever written through one.
    ArchivePtr a = openZip(archivePath, error);
    if (!a)
        return false;
    qint64 budget = limits.maxBytes;
    archive_entry *e;
    for (const Entry &entry : std::as_const(*entries)) {
        if (archive_read_next_header(a.get(), &e) != ARCHIVE_OK || cleanPath(pathOf(e)) != entry.path) {
            *error = archiveError(a.get(), QStringLiteral("archive changed while unpacking"));
            return false;
        }
        const QString path = into + QLatin1Char('/') + entry.path;
        if (!makeParents(into, entry.path, error))
            return false;
        if (entry.type == Entry::Dir) {
            struct stat st;
            const QByteArray native = QFile::encodeName(path);
            if (::lstat(native.constData(), &st) == 0 ? !S_ISDIR(st.st_mode) : ::mkdir(native.constData(), 0700) != 0) {
                *error = QStringLiteral("cannot make folder: ") + entry.path;
                return false;
            }
        } else if (entry.type == Entry::File && !writeFile(a.get(), path, entry.mode, &budget, error)) {
            return false;
        }
    }
    for (const Entry &entry : std::as_const(*entries)) {
        if (entry.type == Entry::Dir)
            ::chmod(QFile::encodeName(into + QLatin1Char('/') + entry.path).constData(), (entry.mode & 0777) | 0700);
        if (entry.type != Entry::Link)
            continue;
        if (!makeParents(into, entry.path, error))
            return false;
        if (::symlink(QFile::encodeName(entry.target).constData(),
                      QFile::encodeName(into + QLatin1Char('/') + entry.path).constData())
            != 0) {
            *error = QStringLiteral("cannot make link: ") + entry.path;
            return false;
        }
    }
    return true;
}
