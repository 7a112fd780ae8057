#pragma once

#include <QList>
#include <QPair>
#include <QString>
#include <QStringList>

#include <optional>

// The pieces of a finished segment file name, track_take_index[_final].ext, as the control room
// wants them in the query of an upload.
struct SegmentName
{
    QString track;
    QString take;
    qint64 index = 0;
    bool final = false;
    QString ext;

    /// Reads a file name (no folder); nothing when it does not follow the naming rule.
    static std::optional<SegmentName> parse(const QString &fileName);
    /// Whether a file name has one of the two media suffixes (".m4a", ".mp4"; case-sensitive).
    static bool isMedia(const QString &fileName);
    /// A signed decimal integer with an optional "+" or "-"; anything else or an overflow gives 0.
    static qint64 readIndex(const QString &text);
    /// The query items of the upload in their order: id, session, track, take, idx, final, ext.
    QList<QPair<QString, QString>> queryItems(int agentID, const QString &session) const;
};
