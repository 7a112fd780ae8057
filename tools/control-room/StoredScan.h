#pragma once

#include <QDateTime>
#include <QDir>
#include <QDirIterator>
#include <QStringList>

#include <set>

// The pieces an earlier run of the room stored under its uploads folder, walked a number of entries
// at a time so that the room serves between steps. Only names the room itself writes are taken;
// links, strays and the sales' files (the sale book's) are not. A hidden partial upload older than
// `startedAt` is a leftover of a run that ended mid-upload and is removed; a newer one is in flight.
/// The file in the uploads folder that keeps what the operator asked over a restart of the room.
inline constexpr char kWishesFile[] = "room-wishes.json";
/// The file in the uploads folder that keeps the operator token over a restart (this user's only).
inline constexpr char kTokenFile[] = "room-token";

class StoredScan
{
public:
    /// Walks `uploads`; partial uploads last written before `startedAt` are leftovers.
    StoredScan(const QDir &uploads, const QDateTime &startedAt);
    /// Looks at up to `count` more entries, adding pieces to `pieces` and a line per skipped entry
    /// to `skipped`; false once every entry was seen.
    bool step(int count, std::set<QString> &pieces, QStringList &skipped);
    /// Pieces found so far.
    int found() const { return m_found; }
    /// Leftover partial uploads removed so far.
    int removed() const { return m_removed; }

private:
    QDir m_uploads;
    QDateTime m_startedAt;
    QDirIterator m_walk;
    int m_found = 0;
    int m_removed = 0;
};
