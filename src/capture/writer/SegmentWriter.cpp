#include "SegmentWriter.h"

#include "AvError.h"
#include "BravaLog.h"
#include "SessionFolder.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cmath>
#include <mutex>

extern "C" {
#include <libavformat/avformat.h>
}

SegmentWriter::SegmentWriter(const QString &track, std::unique_ptr<SegmentFormat> format, const WriterSetup &setup)
    : m_track(track)
    , m_format(std::move(format))
    , m_segmentSeconds(setup.segmentSeconds)
    , m_writingDir(setup.writingDir)
{
    Q_ASSERT(m_format);
    Q_ASSERT(m_segmentSeconds > 0);
    // libav's informational chatter (encoder statistics) stays out of the agent's stderr.
    static std::once_flag quiet;
    std::call_once(quiet, [] { av_log_set_level(AV_LOG_ERROR); });
}

SegmentWriter::~SegmentWriter()
{
    // A writer destroyed with a segment open still leaves a readable file behind, unreported.
    onFault = nullptr;
    if (m_fmt)
        endFile(true);
}

void SegmentWriter::begin(const std::optional<QString> &session, int64_t take)
{
    m_session = session;
    m_take = take;
    m_idx = 0;
    m_retryFrom.reset();
    setOpenAt(std::nullopt);
}

void SegmentWriter::clearSession()
{
    m_session.reset();
}

void SegmentWriter::setOpenAt(const std::optional<MediaTime> &at)
{
    std::lock_guard lock(m_openAtMutex);
    m_openAt = at;
}

std::optional<MediaTime> SegmentWriter::openAt() const
{
    std::lock_guard lock(m_openAtMutex);
    return m_openAt;
}

bool SegmentWriter::crossesBoundary(MediaTime segStart, MediaTime t, double segmentSeconds)
{
    if (!segStart.isValid() || !t.isValid())
        return false;
    const MediaTime limit = MediaTime::fromNanoseconds(std::llround(segmentSeconds * 1e9));
    return (t - segStart) >= limit;
}

QString SegmentWriter::pieceName(const QString &track, int64_t take, int idx, bool final, const QString &ext)
{
    return track + QLatin1Char('_') + QString::number(take) + QLatin1Char('_')
        + QStringLiteral("%1").arg(idx, 5, 10, QLatin1Char('0')) + (final ? QStringLiteral("_final") : QString())
        + QLatin1Char('.') + ext;
}

QString SegmentWriter::folder()
{
    Q_ASSERT(m_session);
    QString error;
    const QString path = SessionFolder::make(m_writingDir, *m_session, &error);
    if (path.isEmpty())
        report(m_format->text(SegmentFormat::Text::CreateFailed, m_track, QStringLiteral("folder: ") + error));
    return path;
}

void SegmentWriter::append(const TimedSample &sample)
{
    if (!m_session || !sample.isValid())
        return;
    const MediaTime t = sample.pts;
    m_now = t;
    const std::optional<MediaTime> at = openAt();
    if (at && t < *at)
        return;

    if (m_fmt && crossesBoundary(m_segStart, t, m_segmentSeconds)) {
        close(false);
        if (m_retryFrom && t < *m_retryFrom)
            return;
        if (!open(*m_session, t, sample)) {
            m_retryFrom = t + MediaTime::make(kRetrySeconds, 1);
            return;
        }
    }
    if (!m_fmt) {
        if (m_retryFrom && t < *m_retryFrom)
            return; // a write failed a moment ago: not every sample gets a file of its own
        // The first segment of a take starts at the common start; one after a failed write
        // starts at its own first sample, where the audio really continues.
        if (!open(*m_session, m_idx == 0 ? at.value_or(t) : t, sample)) {
            if (m_format->accepts(sample))
                m_retryFrom = t + MediaTime::make(kRetrySeconds, 1);
            return;
        }
    }

    const bool ok = m_format->write(sample, [this](AVPacket *packet) { return writePacket(packet); }) && settle();
    if (!ok) {
        // The disk or the encoder refused: what reached the disk is a finished segment; a new
        // one is tried after the pause.
        const int error = m_fmt->pb ? m_fmt->pb->error : 0;
        report(m_format->text(SegmentFormat::Text::CreateFailed, m_track,
                              error < 0 ? avErrorText(error) : QStringLiteral("write failed")));
        close(false);
        m_retryFrom = t + MediaTime::make(kRetrySeconds, 1);
    }
}

bool SegmentWriter::writePacket(AVPacket *packet)
{
    packet->stream_index = 0;
    ++m_packets;
    return av_interleaved_write_frame(m_fmt, packet) >= 0;
}

// After a successful write: the first packet also pushes out the header and a first fragment, so
// a crash finds a readable file at once; then whatever the muxer wrote goes to disk now.
bool SegmentWriter::settle()
{
    // The first flush writes the movie header, the second the fragment with that packet.
    if (m_packets > 0 && m_wholeEnd == m_headerEnd && (av_write_frame(m_fmt, nullptr) < 0 || av_write_frame(m_fmt, nullptr) < 0))
        return false;
    avio_flush(m_fmt->pb);
    if (m_fmt->pb->error < 0)
        return false;
    const int64_t end = avio_tell(m_fmt->pb);
    if (end > m_wholeEnd) {
        m_wholeEnd = end;
        recovered();
    }
    return true;
}

bool SegmentWriter::open(const QString &session, MediaTime at, const TimedSample &sample)
{
    Q_ASSERT(!m_fmt);
    if (!m_format->accepts(sample))
        return false;

    const QString dir = folder();
    if (dir.isEmpty())
        return false;
    const QString file = dir + QLatin1Char('/') + pieceName(m_track, m_take, m_idx, false, m_format->extension());
    QFile::remove(file);
    const QByteArray path = QFile::encodeName(file);

    int rc = avformat_alloc_output_context2(&m_fmt, nullptr, m_format->muxer(), path.constData());
    if (rc < 0 || !m_fmt) {
        m_fmt = nullptr;
        report(m_format->text(SegmentFormat::Text::CreateFailed, m_track, avErrorText(rc)));
        return false;
    }
    QString error;
    if (!m_format->open(m_fmt, sample, at, &error)) {
        report(m_format->text(SegmentFormat::Text::AddFailed, m_track, error));
        abandon();
        return false;
    }
    rc = avio_open(&m_fmt->pb, path.constData(), AVIO_FLAG_WRITE);
    if (rc < 0) {
        report(m_format->text(SegmentFormat::Text::CreateFailed, m_track, avErrorText(rc)));
        abandon();
        return false;
    }
    AVDictionary *options = nullptr;
    // The movie header waits for the first packet (it carries the encoder's delay as an edit),
    // which settle() pushes out at once.
    av_dict_set(&options, "movflags", "frag_keyframe+delay_moov+default_base_moof", 0);
    av_dict_set_int(&options, "frag_duration", kFragmentMicroseconds, 0);
    av_dict_set(&options, "use_editlist", "1", 0);
    av_dict_set(&options, "flush_packets", "1", 0); // every finished fragment goes to disk at once
    rc = avformat_write_header(m_fmt, &options);
    av_dict_free(&options);
    if (rc >= 0) {
        avio_flush(m_fmt->pb);
        rc = m_fmt->pb->error;
    }
    if (rc < 0) {
        report(m_format->text(SegmentFormat::Text::StartFailed, m_track, avErrorText(rc)));
        abandon();
        QFile::remove(file);
        return false;
    }
    (void)session;
    m_packets = 0;
    m_headerEnd = m_wholeEnd = avio_tell(m_fmt->pb);
    m_retryFrom.reset();
    m_segStart = at;
    m_path = file;
    ++m_idx;
    return true;
}

void SegmentWriter::report(const QString &reason)
{
    m_failedAt = m_now;
    // What a person can do about it, where there is something.
    const QString failure = reason.contains(QLatin1String("No space left on device"))
        ? reason + QStringLiteral(" — free some space on this computer: parts of the call are not being recorded")
        : reason;
    // A failure that repeats with every sample (a full disk) is logged once until it clears.
    if (!m_failureLog.log(failure))
        return;
    if (onFault)
        onFault(failure);
}

void SegmentWriter::recovered()
{
    if (m_failureLog.last().isEmpty())
        return;
    if (m_failedAt && m_now && *m_now < *m_failedAt + MediaTime::make(kSteadySeconds, 1))
        return; // not yet steady
    m_failureLog.clear();
    m_failedAt.reset();
    bravaLog(QStringLiteral("writer ") + m_track + QStringLiteral(": writing again"));
    if (onFault)
        onFault(std::nullopt);
}

void SegmentWriter::abandon()
{
    m_format->release();
    if (m_fmt) {
        if (m_fmt->pb)
            avio_closep(&m_fmt->pb);
        avformat_free_context(m_fmt);
        m_fmt = nullptr;
    }
}

// Ends the open file: complete = drain the encoder and write the trailer. A file whose end did
// not reach the disk is cut back to its last whole fragment. Returns whether the file holds media
// and is kept; one without a whole fragment is removed.
bool SegmentWriter::endFile(bool complete)
{
    Q_ASSERT(m_fmt);
    const QString file = m_path;
    m_path.clear();
    QString failure;
    if (complete) {
        const bool drained = m_format->drain([this](AVPacket *packet) { return writePacket(packet); });
        int rc = m_packets > 0 ? av_write_trailer(m_fmt) : 0;
        const int closed = avio_closep(&m_fmt->pb);
        if (rc >= 0)
            rc = closed;
        if (!drained || rc < 0)
            failure = QFileInfo(file).fileName() + QStringLiteral(": ")
                + (drained ? avErrorText(rc) : QStringLiteral("encoder drain failed"));
        else if (m_packets > 0)
            m_wholeEnd = QFileInfo(file).size();
    }
    abandon();
    if (!failure.isEmpty())
        report(m_format->text(SegmentFormat::Text::FinishFailed, m_track, failure));
    const bool media = (complete && failure.isEmpty()) ? m_packets > 0 : m_wholeEnd > m_headerEnd;
    if (media && (QFileInfo(file).size() == m_wholeEnd || QFile::resize(file, m_wholeEnd)))
        return true;
    QFile::remove(file);
    --m_idx; // the number goes to the next segment that holds media
    return false;
}

void SegmentWriter::close(bool final)
{
    const auto done = onSegmentDone;
    if (m_fmt) {
        QString file = m_path;
        // A segment ended by a failed write is not complete, but what reached the disk is kept.
        if (!endFile(m_failureLog.last().isEmpty() || final))
            return; // never reported, never uploaded
        if (final) {
            const QFileInfo info(file);
            const QString moved = info.path() + QLatin1Char('/') + info.completeBaseName() + QStringLiteral("_final.")
                + info.suffix();
            QFile::remove(moved);
            QFile::rename(file, moved); // a failed move still reports the final name
            file = moved;
        }
        if (done)
            done(file);
        return;
    }
    // Nothing open (a failed write ended the last segment): no empty file stands in for a
    // final piece; every file handed over holds media.
    (void)final;
}
