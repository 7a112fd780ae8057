#include "SegmentSalvage.h"

#include <QFile>
#include <QtEndian>

namespace SegmentSalvage {

namespace {

struct Box {
    QByteArray type;
    qint64 start = 0;
    qint64 end = 0; // one past the last byte
};

// The top-level box at `offset`; none when its header is cut or its size is impossible.
std::optional<Box> boxAt(QIODevice &device, qint64 offset, qint64 size)
{
    if (size - offset < 8 || !device.seek(offset))
        return std::nullopt;
    const QByteArray header = device.read(16);
    if (header.size() < 8)
        return std::nullopt;
    qint64 length = qFromBigEndian<quint32>(header.constData());
    if (length == 1) { // a 64-bit size follows the type
        if (header.size() < 16)
            return std::nullopt;
        length = qint64(qFromBigEndian<quint64>(header.constData() + 8));
    }
    // A size of 0 ("to the end of the file") is never written by the segment writer; in a cut file
    // it cannot be told from a box that was still being written.
    if (length < 8)
        return std::nullopt;
    return Box{header.mid(4, 4), offset, offset + length};
}

} // namespace

qint64 mediaEnd(QIODevice &device)
{
    const qint64 size = device.size();
    bool haveMovie = false;
    bool haveFragment = false;
    qint64 fragmentStart = -1; // a movie-fragment box waiting for its media data
    qint64 end = 0;            // after the last box that is whole on its own
    for (qint64 offset = 0;;) {
        const std::optional<Box> box = boxAt(device, offset, size);
        if (!box || box->end > size)
            break; // cut here
        if (box->type == "moov") {
            haveMovie = true;
        } else if (box->type == "moof") {
            fragmentStart = box->start;
        } else if (box->type == "mdat" && fragmentStart >= 0) {
            fragmentStart = -1;
            haveFragment = haveMovie;
        }
        if (fragmentStart < 0)
            end = box->end; // boxes after the fragments (an index at the end) are kept
        offset = box->end;
    }
    return haveFragment ? end : 0;
}

Verdict salvage(const QString &path, QString *error)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadWrite)) {
        if (error)
            *error = file.errorString();
        return Verdict::NoMedia;
    }
    const qint64 end = mediaEnd(file);
    if (end == 0)
        return Verdict::NoMedia;
    if (end == file.size())
        return Verdict::Whole;
    if (!file.resize(end)) {
        if (error)
            *error = file.errorString();
        return Verdict::NoMedia;
    }
    return Verdict::Trimmed;
}

} // namespace SegmentSalvage
