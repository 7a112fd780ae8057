#include "SegmentName.h"

#include "Protocol.h"

namespace {

const QStringList &knownTracks()
{
    // Exactly these four; the extra cameras (cam2..cam4) stay on this computer.
    static const QStringList tracks{QStringLiteral("mic"), QStringLiteral("sys"), QStringLiteral("cam"),
                                    QStringLiteral("room")};
    return tracks;
}

} // namespace

bool SegmentName::isMedia(const QString &fileName)
{
    return fileName.endsWith(QLatin1String(".m4a")) || fileName.endsWith(QLatin1String(".mp4"));
}

qint64 SegmentName::readIndex(const QString &text)
{
    int start = 0;
    if (text.startsWith(QLatin1Char('+')) || text.startsWith(QLatin1Char('-')))
        start = 1;
    if (start == text.size())
        return 0;
    for (int i = start; i < text.size(); ++i)
        if (text[i] < QLatin1Char('0') || text[i] > QLatin1Char('9'))
            return 0;
    bool ok = false;
    const qint64 value = text.toLongLong(&ok, 10);
    return ok ? value : 0;
}

std::optional<SegmentName> SegmentName::parse(const QString &fileName)
{
    // The extension is what follows the last dot; a name without one keeps its whole text.
    const int dot = fileName.lastIndexOf(QLatin1Char('.'));
    const QString stem = dot > 0 ? fileName.left(dot) : fileName;
    const QString ext = dot > 0 ? fileName.mid(dot + 1) : QString();
    const QStringList parts = stem.split(QLatin1Char('_'), Qt::SkipEmptyParts);
    if (parts.size() < 3 || !knownTracks().contains(parts[0]))
        return std::nullopt;
    SegmentName name;
    name.track = parts[0];
    name.take = parts[1];
    name.index = readIndex(parts[2]);
    name.final = parts.size() >= 4 && parts[3] == QLatin1String("final");
    name.ext = ext;
    return name;
}

QList<QPair<QString, QString>> SegmentName::queryItems(int agentID, const QString &session) const
{
    return {
        {QLatin1String(Protocol::UploadQuery::id), QString::number(agentID)},
        {QLatin1String(Protocol::UploadQuery::session), session},
        {QLatin1String(Protocol::UploadQuery::track), track},
        {QLatin1String(Protocol::UploadQuery::take), take},
        {QLatin1String(Protocol::UploadQuery::index), QString::number(index)},
        {QLatin1String(Protocol::UploadQuery::final), final ? QStringLiteral("1") : QStringLiteral("0")},
        {QLatin1String(Protocol::UploadQuery::ext), ext},
    };
}
