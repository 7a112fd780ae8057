#include "OrphanRecovery.h"

#include "BravaLog.h"
#include "SessionFolder.h"
#include "SegmentName.h"
#include "SegmentSalvage.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHash>

namespace {

QFileInfoList entries(const QString &dir)
{
    return QDir(dir).entryInfoList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::Name);
}

} // namespace

OrphanRecovery::OrphanRecovery(QString writingDir, QString unrecognizedDir)
    : m_writing(std::move(writingDir))
    , m_unrecognized(std::move(unrecognizedDir))
{
}

bool OrphanRecovery::setAside(const QString &path, const QString &unrecognizedDir)
{
    QDir().mkpath(unrecognizedDir);
    const QString base = unrecognizedDir + QLatin1Char('/') + QFileInfo(path).fileName();
    QString target = base;
    for (int n = 1; QFileInfo::exists(target); ++n)
        target = base + QLatin1Char('.') + QString::number(n);
    return QFile::rename(path, target);
}

QList<OrphanRecovery::Found> OrphanRecovery::run() const
{
    QList<Found> found;
    for (const QFileInfo &folder : entries(m_writing)) {
        if (folder.fileName().startsWith(QLatin1Char('.')) || !folder.isDir())
            continue;
        found += runFolder(folder.filePath(), SessionFolder::sessionOf(folder.filePath()));
    }
    return found;
}

QList<OrphanRecovery::Found> OrphanRecovery::runFolder(const QString &folder, const QString &session) const
{
    QList<Found> kept;
    QHash<QString, qsizetype> lastOfTake; // track and take → the kept piece with the highest index
    QHash<QString, bool> takeEnded;       // track and take → a "_final" piece exists
    for (const QFileInfo &file : entries(folder)) {
        if (!file.isFile() || !SegmentName::isMedia(file.fileName()))
            continue;
        QString why;
        const SegmentSalvage::Verdict verdict = SegmentSalvage::salvage(file.filePath(), &why);
        if (verdict == SegmentSalvage::Verdict::NoMedia) {
            const bool moved = setAside(file.filePath(), m_unrecognized);
            bravaLog(QStringLiteral("recovery: ") + file.fileName() + QStringLiteral(" holds no whole fragment")
                     + (why.isEmpty() ? QString() : QStringLiteral(" (") + why + QLatin1Char(')'))
                     + (moved ? QStringLiteral("; kept in unrecognized/") : QStringLiteral("; left in writing/")));
            continue;
        }
        if (verdict == SegmentSalvage::Verdict::Trimmed)
            bravaLog(QStringLiteral("recovery: ") + file.fileName() + QStringLiteral(" was cut inside a fragment; trimmed to its last whole fragment"));
        kept.append({file.filePath(), session});
        const std::optional<SegmentName> name = SegmentName::parse(file.fileName());
        if (!name)
            continue;
        const QString key = name->track + QLatin1Char('_') + name->take;
        takeEnded[key] = takeEnded.value(key) || name->final;
        const auto last = lastOfTake.constFind(key);
        if (last == lastOfTake.constEnd()
            || SegmentName::parse(QFileInfo(kept[*last].path).fileName())->index < name->index)
            lastOfTake[key] = kept.size() - 1;
    }
    // A take killed mid-way never wrote its final piece: its last kept piece becomes the final one.
    for (auto it = lastOfTake.constBegin(); it != lastOfTake.constEnd(); ++it) {
        if (takeEnded.value(it.key()))
            continue;
        Found &piece = kept[it.value()];
        const QFileInfo info(piece.path);
        const QString final = info.path() + QLatin1Char('/') + info.completeBaseName() + QStringLiteral("_final.")
            + info.suffix();
        if (QFile::rename(piece.path, final)) {
            bravaLog(QStringLiteral("recovery: ") + info.fileName() + QStringLiteral(" ends a take that was cut off; sent as its final piece"));
            piece.path = final;
        }
    }
    return kept;
}
