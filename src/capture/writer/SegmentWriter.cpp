#include "SegmentWriter.h"

#include "AvError.h"
#include "BravaLog.h"
#include "Config.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cmath>
#include <mutex>

extern "C" {
#include <libavformat/avformat.h>
}

SegmentWriter::SegmentWriter(const QString &track, std::unique_ptr<SegmentFormat> format, double segmentSeconds)
    : m_track(track)
    , m_format(std::move(format))
    , m_segmentSeconds(segmentSeconds)
{
    Q_ASSERT(m_format);
    Q_ASSERT(segmentSeconds > 0);
    // libav's informational chatter (encoder statistics) stays out of the agent's stderr.
    static std::once_flag quiet;
    std::call_once(quiet, [] { av_log_set_level(AV_LOG_ERROR); });
}

SegmentWriter::~SegmentWriter()
{
    // A writer destroyed with a segment open still leaves a readable file behind.
    if (m_fmt)
        finishFile(m_path);
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

QString SegmentWriter::folder() const
{
    Q_ASSERT(m_session);
    const QString path = Config::dir(QStringLiteral("writing")) + QLatin1Char('/') + Config::sessionFolder(*m_session);
    QDir().mkpath(path); // a failure shows up when the file is created
    return path;
}

void SegmentWriter::append(const TimedSample &sample)
{
    if (!m_session || !sample.isValid())
        return;
    const MediaTime t = sample.pts;
    const std::optional<MediaTime> at = openAt();
    if (at && t < *at)
        return;

    if (m_fmt && crossesBoundary(m_segStart, t, m_segmentSeconds)) {
        close(false);
        if (!open(*m_session, t, sample))
            return;
    }
    if (!m_fmt) {
        if (m_retryFrom && t < *m_retryFrom)
            return; // a write failed a moment ago: not every sample gets a file of its own
        // The first segment of a take starts at the common start; one after a failed write
        // starts at its own first sample, where the audio really continues.
        if (!open(*m_session, m_idx == 0 ? at.value_or(t) : t, sample))
            return;
    }

    const bool ok = m_format->write(sample, [this](AVPacket *packet) {
        packet->stream_index = 0;
        return av_interleaved_write_frame(m_fmt, packet) >= 0;
    });
    if (!ok) {
        // The disk or the encoder refused: keep what is written as a finished segment; the next
        // sample opens a fresh one.
        report(m_format->text(SegmentFormat::Text::CreateFailed, m_track, QStringLiteral("write failed")));
        close(false);
        m_retryFrom = t + MediaTime::make(kRetrySeconds, 1);
    }
}

bool SegmentWriter::open(const QString &session, MediaTime at, const TimedSample &sample)
{
    Q_ASSERT(!m_fmt);
    if (!m_format->accepts(sample))
        return false;

    const QString file = folder() + QLatin1Char('/') + pieceName(m_track, m_take, m_idx, false, m_format->extension());
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
    av_dict_set(&options, "movflags", "frag_keyframe+delay_moov+default_base_moof", 0);
    av_dict_set_int(&options, "frag_duration", kFragmentMicroseconds, 0);
    av_dict_set(&options, "use_editlist", "1", 0);
    av_dict_set(&options, "flush_packets", "1", 0); // every finished fragment goes to disk at once
    rc = avformat_write_header(m_fmt, &options);
    av_dict_free(&options);
    if (rc < 0) {
        report(m_format->text(SegmentFormat::Text::StartFailed, m_track, avErrorText(rc)));
        abandon();
        QFile::remove(file);
        return false;
    }
    (void)session;
    m_lastFailure.clear();
    m_retryFrom.reset();
    m_segStart = at;
    m_path = file;
    ++m_idx;
    return true;
}

void SegmentWriter::report(const QString &failure)
{
    // A failure that repeats with every sample (a full disk) is logged once until it clears.
    if (failure == m_lastFailure)
        return;
    m_lastFailure = failure;
    bravaLog(failure);
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

bool SegmentWriter::finishFile(const QString &file)
{
    Q_ASSERT(m_fmt);
    const bool drained = m_format->drain([this](AVPacket *packet) {
        packet->stream_index = 0;
        return av_interleaved_write_frame(m_fmt, packet) >= 0;
    });
    int rc = av_write_trailer(m_fmt);
    const int closed = avio_closep(&m_fmt->pb);
    if (rc >= 0)
        rc = closed;
    abandon();
    if (!drained || rc < 0) {
        report(m_format->text(SegmentFormat::Text::FinishFailed, m_track,
                                QFileInfo(file).fileName() + QStringLiteral(": ")
                                    + (drained ? avErrorText(rc) : QStringLiteral("encoder drain failed"))));
        return false;
    }
    return true;
}

void SegmentWriter::close(bool final)
{
    const auto done = onSegmentDone;
    if (m_fmt) {
        QString file = m_path;
        m_path.clear();
        if (!finishFile(file))
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
    if (final && m_idx >= 1 && m_session) {
        const QString marker = folder() + QLatin1Char('/') + pieceName(m_track, m_take, m_idx, true, m_format->extension());
        QFile f(marker);
        f.open(QIODevice::WriteOnly | QIODevice::Truncate);
        f.close();
        if (done)
            done(marker);
    }
}
