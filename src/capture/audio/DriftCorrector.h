#pragma once

#include "AudioBackend.h"
#include "TimedSample.h"

#include <deque>
#include <optional>
#include <utility>
#include <vector>

struct SwrContext;

// Puts one audio stream on the monotonic time line. A sound card's crystal is never exactly at
// its nominal rate, so a time line made of sample counts alone slides away from the other tracks
// (0.1 % is almost 2 s per 30 minutes). This follows each block's measured capture time with a
// slow control loop and stretches the audio by a few samples at a time (libswresample
// compensation) so that exactly `rate` samples are written per second of monotonic time. Output
// time stamps are therefore exactly contiguous: no jitter, no gaps. Only a real discontinuity
// (a lost block, a paused device, an error above kJumpSeconds) re-anchors the time line.
// A step between the stamps and the sample count that is clearly larger than the stamps' own
// scatter is no drift: either audio the server lost (a sound server that drops a whole quantum
// now and then moves the stamps by exactly that much) or stamps that are late (a loaded machine
// answers the timing requests late; after a stall the server's first answers are all late). One
// track's stamps cannot tell these apart, so a step is only a candidate (pendingStep): when the
// median of the newest kStepBlocks deviations lies beyond kStepScatters times the scatter (and
// kMinStepSeconds), or a block says the server's positions show audio lost (AudioBuffer::
// lostFrames; such losses wait their turn), the stamps' move is set aside until the owner, who
// sees the other tracks, settles it (settleStep): a loss the server's positions show is filled as they say; of a move seen in
// the stamps alone, the part the other tracks' stamps do not share (on the same clock) is this
// track's own loss and is filled with silence (an overlap is dropped); a move they share,
// or one with nothing to compare with, is doubtful and stays set aside (counted, not filled);
// more than kDriftSeconds set aside places the time line again on the stamps as they are. Output is held back
// kHoldSeconds so that silence goes where the audio was lost, also when the server's positions
// show the loss only a window of snapshots later; the slow loop is left to real clock drift.
// A new time line is placed only once the stamps have settled: blocks are held back (at least
// kSettleSeconds, at most kMaxSettleSeconds) until the newest kSteadyBlocks agree within
// kSteadySpreadSeconds, and the line is anchored on their median. A device's first stamps can be
// off (a device that is still starting up), and an anchor taken from them would misplace the
// track for as long as the loop takes to pull it back. The hold is kept short because the start
// sync drops what it is handed before every track has arrived: a track held back long costs the
// other tracks their first moments.
class DriftCorrector
{
public:
    /// Deviation of one block from the time line that counts as a discontinuity.
    static constexpr double kJumpSeconds = 0.25;
    /// Deviation of the filtered error that makes the time line be placed again.
    static constexpr double kDriftSeconds = 0.02;
    /// Time constant of the loop's proportional part.
    static constexpr double kLoopSeconds = 4.0;
    /// Largest stretch applied (0.5 %).
    static constexpr double kMaxStretch = 0.005;
    /// Audio held back at least, and at most, to place a new time line.
    static constexpr double kSettleSeconds = 0.1;
    static constexpr double kMaxSettleSeconds = 0.5;
    /// Newest blocks that must agree, and how closely, before a time line is placed (a device
    /// that hands over audio in chunks of a few milliseconds scatters its stamps by that much).
    static constexpr int kSteadyBlocks = 10;
    static constexpr double kSteadySpreadSeconds = 0.006;
    /// Newest blocks whose median deviation reveals a step, how many scatters (mean absolute
    /// deviation from that median) it must exceed, and the smallest step that is filled.
    static constexpr int kStepBlocks = 7;
    static constexpr double kStepScatters = 4.0;
    static constexpr double kMinStepSeconds = 0.002;
    /// Output held back so that a loss found later is filled where it happened.
    static constexpr double kHoldSeconds = 0.8;
    /// A candidate step with no verdict after this much audio is doubtful.
    static constexpr double kVerdictSeconds = 0.4;

    DriftCorrector() = default;
    ~DriftCorrector();
    DriftCorrector(const DriftCorrector &) = delete;
    DriftCorrector &operator=(const DriftCorrector &) = delete;

    /// Places one captured block; returns the corrected blocks (usually one, none while the
    /// resampler fills, two at a re-anchor: the tail of the old time line, then the new one).
    std::vector<TimedSample> process(const AudioBuffer &buffer);
    /// Everything still held or inside the resampler, placed on the time line (at a stop or
    /// before a device change); the corrector then starts over with the next block.
    std::vector<TimedSample> flush();
    /// Starts over with the next block (new take or new device).
    void reset();

    /// The filtered distance of the time line from the capture times, in seconds (+ = ahead).
    double error() const { return m_error; }
    /// Current stretch (output samples per input sample − 1).
    double stretch() const { return m_stretch; }
    /// Number of re-anchors since the last reset.
    int anchors() const { return m_anchors; }
    /// Steps settled since the last call: gaps filled with silence (lost audio; `located` of
    /// them where the server's positions put the loss), overlaps dropped, and doubtful steps
    /// left unfilled, with their frames.
    struct Steps {
        int gaps = 0, overlaps = 0, doubtful = 0, located = 0;
        int64_t gapFrames = 0, overlapFrames = 0, doubtfulFrames = 0;
    };
    /// A step of the stamps awaiting the owner's verdict: `frames` lost (+) or repeated (−),
    /// from the frame stamped `atNs` on, seen in the block stamped `seenNs`.
    struct Candidate {
        int frames = 0;
        int64_t atNs = 0;
        int64_t seenNs = 0;
        bool located = false; // the server's positions showed it
        double seconds = 0;   // the move of the stamps (+ = later)
    };
    /// The step awaiting a verdict, if any.
    const std::optional<Candidate> &pendingStep() const { return m_pending; }
    /// Settles the pending step: `mend` frames of it (same sign, at most all) are mended (silence
    /// where the audio was lost, or frames dropped) and the rest of the stamps' move stays set
    /// aside; 0 counts it as doubtful and sets all of it aside.
    void settleStep(int mend);
    /// How far this track's stamps moved later (seconds) from the blocks stamped just before
    /// `beforeNs` to its newest blocks, stamped from `afterNs` on, less the losses the server's
    /// positions showed on it (they moved this track alone); none without blocks on both sides.
    std::optional<double> stampMove(int64_t beforeNs, int64_t afterNs) const;
    /// Stamp of the newest block placed on the time line (0: none since the last reset).
    int64_t newestNs() const { return m_marks.empty() ? 0 : m_marks.back().captureNs; }
    Steps takeSteps() { return std::exchange(m_steps, Steps{}); }
    /// The stamps' scatter around their own local median (mean absolute deviation, seconds).
    double scatter() const { return m_scatter; }

private:
    bool setUp(int rate, int channels);
    void anchor(int64_t ns);
    void settle(std::vector<TimedSample> &out);
    std::vector<int64_t> heldStarts() const;
    bool steady() const;
    void flushTail(int64_t captureNs);
    void convert(const float *data, int frames, int64_t captureNs);
    void blockAt(std::vector<float> &&pcm, int frames, int64_t captureNs, int lead = 0);
    int stepFrames(double deviation, int64_t captureNs, int64_t *atNs);
    double stepThreshold() const;
    void convertSkipping(const AudioBuffer &buffer, std::vector<TimedSample> &out);
    void propose(int frames, int64_t atNs, int64_t seenNs, bool located);
    /// Puts the next loss the server's positions showed up for a verdict, once none is pending.
    void proposeLocated(int64_t seenNs);
    void mark(int64_t captureNs, int frames);
    void hold(std::vector<TimedSample> &&samples, int64_t captureNs, std::vector<TimedSample> &out);
    void release(std::vector<TimedSample> &out, bool all);
    void shiftHeld(size_t from, int64_t frames);

    SwrContext *m_swr = nullptr;
    int m_rate = 0;
    int m_channels = 0;
    int64_t m_anchorNs = 0;
    int64_t m_outFrames = 0; // frames emitted since the anchor
    std::vector<AudioBuffer> m_held; // blocks of a time line that is not placed yet
    int64_t m_heldFrames = 0;
    double m_error = 0;      // filtered
    double m_integral = 0;   // the loop's estimate of the device's rate error
    double m_stretch = 0;
    int m_anchors = 0;
    std::vector<double> m_recent; // the newest deviations from the filtered error, oldest first
    double m_scatter = 0.001;
    std::vector<int64_t> m_recentAt; // stamps of the blocks of m_recent
    int64_t m_skip = 0;           // input frames still to drop for an overlap
    Steps m_steps;
    std::optional<Candidate> m_pending;
    std::deque<Candidate> m_located; // losses the server's positions showed, waiting their turn
    double m_setAside = 0;        // seconds the stamps moved later that are not believed
    struct Mark {                 // one placed block: its stamp against the plain sample count
        int64_t captureNs;
        double offset;
    };
    std::deque<Mark> m_marks;     // the last seconds, oldest first; emptied at a new time line
    double m_explained = 0;       // seconds of located losses filled, kept out of the marks' offsets
    int64_t m_inFrames = 0;       // input frames placed since the anchor
    struct Held {                 // output not yet handed out
        TimedSample sample;
        int64_t anchorNs;
        int64_t startFrame;       // output frames since that anchor before it
        int64_t captureNs;        // stamp of the input block it came from
        int lead;                 // its first frames that came from earlier input
    };
    std::deque<Held> m_outHeld;
};
