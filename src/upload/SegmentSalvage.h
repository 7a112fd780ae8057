#pragma once

#include <QString>

class QIODevice;

// What a segment file left in writing/ by a crash still holds. Segment files are fragmented MP4
// (a file-type box, the movie box, then fragments: a movie-fragment box followed by its media
// data), written fragment by fragment, so a file cut by a crash holds every fragment that reached
// the disk and perhaps part of one more. Only whole fragments are media; a cut tail is trimmed so
// the file reads cleanly, and a file without a single whole fragment holds no media at all.
namespace SegmentSalvage {

enum class Verdict {
    Whole,   // ends at a box boundary and holds at least one whole fragment
    Trimmed, // was cut inside a fragment and now ends after its last whole fragment
    NoMedia, // empty, unreadable, or without a single whole fragment: nothing to upload
};

/// Inspects the file at `path` and trims a cut tail in place. A trim that fails gives NoMedia
/// (with the reason in `error`), so the file is set aside rather than uploaded broken.
Verdict salvage(const QString &path, QString *error = nullptr);

/// Where the readable part of fragmented MP4 data ends (after its last whole fragment); 0 when
/// the movie box or every fragment is incomplete. Reads `device` from its start.
qint64 mediaEnd(QIODevice &device);

} // namespace SegmentSalvage
