#pragma once

#include "MediaTime.h"
#include "TimedSample.h"

#include <QString>

#include <functional>

struct AVFormatContext;
struct AVPacket;
struct AVRational;

// The codec half of a segment writer: which muxer, which encoder settings, how samples become
// packets. The writer core (SegmentWriter) owns files, naming, roll-over and fragmenting; one
// SegmentFormat instance serves one writer and is re-opened for every segment.
struct AVCodecContext;
struct AVStream;
struct AVFrame;

class SegmentFormat
{
public:
    /// Receives one encoded packet with times in the stream time base of open(); false = failed.
    using PacketSink = std::function<bool(AVPacket *packet)>;

    /// Log lines of the writer, which differ between audio and video.
    enum class Text {
        CreateFailed, // the file or muxer cannot be created; detail = reason
        AddFailed,    // the stream or encoder cannot be set up; detail = reason
        StartFailed,  // the header cannot be written; detail = reason
        FinishFailed, // the segment cannot be completed; detail = "<file name>: <reason>"
    };

    virtual ~SegmentFormat() = default;

    /// File extension without the dot ("m4a", "mp4").
    virtual QString extension() const = 0;
    /// libavformat muxer name ("ipod", "mp4").
    virtual const char *muxer() const = 0;
    /// The log line for a failure of the writer of `track`.
    virtual QString text(Text which, const QString &track, const QString &detail) const = 0;
    /// Whether a sample carries what open() needs (format, size); others are ignored.
    virtual bool accepts(const TimedSample &sample) const = 0;

    /// Adds the one stream to `fmt` and opens the encoder for a segment starting at `start`, whose
    /// first sample is `first`. On failure returns false with a reason and leaves nothing open.
    virtual bool open(AVFormatContext *fmt, const TimedSample &first, MediaTime start, QString *error) = 0;
    /// Encodes one sample of the open segment; packets go to `sink`.
    virtual bool write(const TimedSample &sample, const PacketSink &sink) = 0;
    /// Drains the encoder at the end of the segment.
    virtual bool drain(const PacketSink &sink) = 0;
    /// Frees the encoder (after drain or after a failure).
    virtual void release() = 0;

protected:
    /// Sends one frame (nullptr drains) to `enc` and hands every packet it yields to `sink`, with
    /// times moved from the encoder's time base to the stream's (the muxer may have changed it).
    static bool encode(AVCodecContext *enc, AVStream *stream, AVFrame *frame, const PacketSink &sink);
};
