#pragma once

#include <cstdint>
#include <deque>
#include <vector>

// The time line of one record stream, estimated from the sound server's timing snapshots. A
// snapshot tells where the server's write position was at a known moment, which places byte 0 of
// the stream (its origin). The line is estimated from the snapshots of the last kWindowNs, not
// from the newest alone: a server that reports the device's latency (PulseAudio) gets the median
// of their placements; one that reports latency 0 and moves its write position in whole quanta
// (PipeWire's PulseAudio service) places the origin up to one quantum late, so the earliest
// placement of the window is the right one (the snapshot taken just as a quantum arrived) and an
// earlier one is taken at once. The line moves later only when a whole window of answers
// (kMinPlacements over at least half of kWindowNs) says so: then, with latency 0, the stream's
// write position has fallen behind the clock, which is audio the server lost.
//
// A loss is sized from the level the line held before it (its lowest over the last
// kLevelMemoryNs), not from where the line stood just before it moved: while losses follow each
// other closely (a stalled server loses a quantum at each of its stalls), the window holds few
// answers of the old level, its earliest one rises as they leave, and those rises, too small to
// count as a loss, belong to the loss that follows.
class StreamTimeLine
{
public:
    /// A stream of `rate` frames per second, `frameBytes` bytes each.
    StreamTimeLine(int rate, int frameBytes);

    /// Adds one snapshot's placement: its answer came at `takenNs` (monotonic), it places byte 0
    /// of the stream at `originNs`, the server's write position was `writeIndex` bytes, and
    /// `latencyGiven` says whether the server reported the device's latency.
    void add(int64_t takenNs, int64_t originNs, int64_t writeIndex, bool latencyGiven);
    /// Forgets everything (after an overflow or a suspend the old snapshots no longer apply).
    void reset();
    /// Whether a time line has been placed.
    bool timed() const { return m_timed; }
    /// Capture time of the stream's byte 0 (monotonic ns).
    int64_t originNs() const { return m_originNs; }

    /// Audio the server's positions show lost: `frames`, from the frame stamped `atNs` on the
    /// stamps before it.
    struct Loss {
        int frames = 0;
        int64_t atNs = 0;
    };
    /// The losses shown since the last call (none: frames 0).
    Loss takeLoss();

    /// Snapshots the time line is estimated from: those of the last kWindowNs.
    static constexpr int64_t kWindowNs = 300000000;
    /// Answers a window needs before it may move the time line later.
    static constexpr int kMinPlacements = 8;
    /// Smallest move later that is reported as lost audio, and the placements' tolerance around a level.
    static constexpr int64_t kMinLossNs = 1500000;
    static constexpr int64_t kLevelNs = 500000;
    /// How long the line's lowest position is remembered as the level a loss is sized from
    /// (long enough to span a series of stalls, short enough that clock drift stays negligible).
    static constexpr int64_t kLevelMemoryNs = 2000000000;

private:
    void noteLoss(int64_t estimate);
    int64_t level() const;

    struct Placement {
        int64_t takenNs = 0;    // when the snapshot came back
        int64_t originNs = 0;   // capture time of byte 0 by this snapshot
        int64_t writeIndex = 0; // the server's write position then (bytes)
    };
    struct Held {               // a position the line held
        int64_t sinceNs = 0;
        int64_t originNs = 0;
    };

    const int m_rate;
    const int64_t m_bytesPerSecond;
    std::vector<Placement> m_placements; // oldest first
    std::deque<Held> m_held;             // the line's positions of the last kLevelMemoryNs, oldest first
    bool m_timed = false;
    int64_t m_originNs = 0;
    int64_t m_levelWriteIndex = 0; // newest write position whose placement was on the line's level
    Loss m_loss;
};
