#include "StoredScan.h"

#include "UploadPlace.h"

#include <QFile>

StoredScan::StoredScan(const QDir &uploads, const QDateTime &startedAt)
    : m_uploads(uploads)
    , m_startedAt(startedAt)
    , m_walk(uploads.path(), QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDirIterator::Subdirectories)
{
}

bool StoredScan::step(int count, std::set<QString> &pieces, QStringList &skipped)
{
    for (int i = 0; i < count; ++i) {
        if (!m_walk.hasNext())
            return false;
        m_walk.next();
        const QFileInfo entry = m_walk.fileInfo();
        const QString rel = m_uploads.relativeFilePath(entry.filePath());
        if (!entry.isDir() && entry.fileName().startsWith(QLatin1Char('.')) && entry.fileName().contains(QLatin1String(".part-"))) {
            if (entry.lastModified() < m_startedAt && QFile::remove(entry.filePath()))
                ++m_removed;
            continue;
        }
        if (rel == QLatin1String("sales") || rel.startsWith(QLatin1String("sales/")))
            continue; // the sale book's
        if (rel == QLatin1String(kWishesFile) || rel.startsWith(QLatin1String(kWishesFile) + QLatin1String("."))
            || rel == QLatin1String(kTokenFile) || rel.startsWith(QLatin1String(kTokenFile) + QLatin1String(".")))
            continue; // what the operator asked and the token, kept over a restart (and their saves in progress)
        if (entry.isSymLink()) { // never followed: it may lead out of the folder
            skipped.append(rel + QStringLiteral(": a link"));
            continue;
        }
        if (entry.isDir())
            continue; // what is in it is looked at on its own
        if (entry.isFile() && UploadPlace::fromPath(rel)) {
            pieces.insert(rel);
            ++m_found;
        } else {
            skipped.append(rel + QStringLiteral(": not a piece the room stores"));
        }
    }
    return m_walk.hasNext();
}
