#pragma once

#include "LogOnce.h"
#include "MediaTime.h"
#include "SegmentFormat.h"
#include "TimedSample.h"
#include "WriterSetup.h"

#include <QString>

#include <functional>
#include <memory>
#include <mutex>
#include <optional>

struct AVFormatContext;
struct AVPacket;

// Writes one track as a series of self-contained fragmented files ("segments") in
// <writing folder>/<session>/: <track>_<take>_<nnnnn>[_final].<ext>. A segment starts at openAt (the common
// start) or at its first sample, rolls over when a sample is segmentSeconds or more past the
// segment start, and is fragmented every 2 s so a file cut off by a crash stays readable. The
// header and the first fragment go to disk with the first packet, so a crash loses at most the
// last fragment interval. Encoding is delegated to a SegmentFormat (AAC in M4A, H.264 in MP4).
//
// A write that fails (a full disk) ends the segment where its last whole fragment ends: that part
// is reported as a finished segment, a file without a whole fragment is removed, never reported.
// The failure goes to onFault (and the log) once until fragments have reached the disk again for
// kSteadySeconds of media time without a failure, which clears it; a new segment is tried kRetrySeconds of media time later.
//
// All calls except setOpenAt come from the one serial queue that serves the track. Finished
// segments are reported through onSegmentDone on that queue; the receiver hops to its own thread.
class SegmentWriter
{
public:
    /// Segment length of production recordings.
    static constexpr double kSegmentSeconds = 1800.0;
    /// Fragment duration of the files, in microseconds.
    static constexpr int kFragmentMicroseconds = 2000000;
    /// After a failed write, media time before a new segment is tried.
    static constexpr int kRetrySeconds = 2;
    /// Media time a writer must write without a failure before its fault clears (a disk nearly full
    /// takes a piece now and then: the fault stays shown rather than coming and going).
    static constexpr int kSteadySeconds = 10;

    /// A writer of `track` in this format, writing into the setup's folder.
    SegmentWriter(const QString &track, std::unique_ptr<SegmentFormat> format, const WriterSetup &setup);
    virtual ~SegmentWriter();
    SegmentWriter(const SegmentWriter &) = delete;
    SegmentWriter &operator=(const SegmentWriter &) = delete;

    /// Arms the writer for a take: numbering restarts at 0 and openAt is cleared. An open segment
    /// is left alone.
    void begin(const std::optional<QString> &session, int64_t take);
    /// Offers one sample; dropped when idle, invalid, or earlier than openAt.
    void append(const TimedSample &sample);
    /// Ends the current segment. final: the take stops (the file gets "_final"). With nothing
    /// open nothing is reported: no file without media is ever handed over.
    void close(bool final);
    /// Forgets the session (the writer becomes idle).
    void clearSession();

    /// Sets the common start; safe from any thread.
    void setOpenAt(const std::optional<MediaTime> &at);
    /// The common start, if set.
    std::optional<MediaTime> openAt() const;

    /// True when `t` is at or past the roll-over point of a segment started at `segStart`.
    static bool crossesBoundary(MediaTime segStart, MediaTime t, double segmentSeconds = kSegmentSeconds);
    /// File name of segment `idx` of a take.
    static QString pieceName(const QString &track, int64_t take, int idx, bool final, const QString &ext);

    QString track() const { return m_track; }
    std::optional<QString> session() const { return m_session; }
    int64_t take() const { return m_take; }
    /// Segments opened in this take (= number of the next one).
    int idx() const { return m_idx; }
    /// Start of the open segment (invalid before the first).
    MediaTime segStart() const { return m_segStart; }
    /// Whether a segment is open.
    bool isOpen() const { return m_fmt != nullptr; }
    /// Path of the open segment ("" when none).
    QString path() const { return m_path; }
    double segmentSeconds() const { return m_segmentSeconds; }

    /// One finished segment file (absolute path).
    std::function<void(const QString &path)> onSegmentDone;
    /// The writer's problem (a failed write) or none when it cleared; on the track's queue.
    std::function<void(const std::optional<QString> &fault)> onFault;

private:
    bool open(const QString &session, MediaTime at, const TimedSample &sample);
    bool writePacket(AVPacket *packet);
    bool settle();
    bool endFile(bool complete);
    void abandon();
    void report(const QString &failure);
    void recovered();
    QString folder();

    const QString m_track;
    const std::unique_ptr<SegmentFormat> m_format;
    const double m_segmentSeconds;
    const QString m_writingDir;
    std::optional<QString> m_session;
    int64_t m_take = 0;
    int m_idx = 0;
    std::optional<MediaTime> m_retryFrom; // no new segment before this, after a failed write
    std::optional<MediaTime> m_now;       // of the sample being written
    std::optional<MediaTime> m_failedAt;  // of the last failure, until the fault clears
    MediaTime m_segStart;
    QString m_path;
    AVFormatContext *m_fmt = nullptr;
    int64_t m_packets = 0;   // packets handed to the muxer in the open segment
    int64_t m_headerEnd = 0; // file size after the header
    int64_t m_wholeEnd = 0;  // file size after the last fragment that reached the disk
    mutable std::mutex m_openAtMutex;
    std::optional<MediaTime> m_openAt;
    LogOnce m_failureLog; // the failure reported, until a fragment reaches the disk again
};
