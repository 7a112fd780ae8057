#pragma once

#include <QList>
#include <QString>

#include <optional>

// Unpacks a release zip into a fresh folder with libarchive. The whole archive is read once
// before anything is written: an entry that would leave the folder (absolute path, "..", a link
// pointing out), a hard link, a device or other special file, too many entries or too many
// unpacked bytes refuse the archive, as does any read error (a truncated archive). Files are
// created new (never through a link) and without set-uid, set-gid or sticky bits; the modes the
// archive gives are reported in entries for the assessment. Blocking; run it off the main thread.
class ArchiveUnpacker
{
public:
    struct Limits
    {
        int maxEntries = 20000;
        qint64 maxBytes = qint64(4) << 30;
    };
    struct Entry
    {
        enum Type { File, Dir, Link };
        QString path; ///< relative to the unpack folder, without a trailing "/"
        Type type = File;
        unsigned mode = 0; ///< permission bits as archived, including set-uid/set-gid
        qint64 size = 0;
        QString target; ///< a link's target
    };

    /// Unpacks `archive` into the existing empty folder `into`; false with the reason in `error`.
    static bool unpack(const QString &archive, const QString &into, const Limits &limits, QList<Entry> *entries,
                       QString *error);

    /// `path` made relative and clean (no "", ".", ".." parts, no leading "/", no control
    /// characters or backslashes); nullopt when it cannot be.
    static std::optional<QString> cleanPath(const QString &path);
    /// True when a link at relative path `link` with this target resolves inside the folder
    /// `link` is relative to.
    static bool linkStaysInside(const QString &link, const QString &target);
};
