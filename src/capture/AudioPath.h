#pragma once

#include "AudioBackend.h"
#include "DriftCorrector.h"
#include "TimedSample.h"

#include <QByteArray>
#include <QString>

#include <atomic>
#include <functional>
#include <memory>
#include <vector>

class LiveConverter;
class SerialQueue;
class Take;

// The audio half of a recording after the device: every block a source delivers is handed to the
// audio queue q, where drift correction makes it contiguous and stamped on the monotonic clock,
// then the take's start sync and writer get it, and the live converter makes live audio and the
// level. At most kMaxQueuedMs of blocks wait on q per source, more than the sound server itself
// holds for a stream: after this process was not running for seconds the server hands over all it
// kept at once, and none of it may be dropped here. Blocks beyond (q is stuck) are dropped, counted
// and logged once per take (the drift corrector bridges the hole with silence, so the track keeps
// its time line). A loss the server's own positions show on a stream is filled with silence where
// they put it, whatever the other tracks did meanwhile (a server that skips ahead after a stall
// loses the same stretch on every stream, and each is filled). A step seen in one track's stamps
// alone is filled (or an overlap dropped) only as far as the other tracks' stamps, on the same
// clock, did not move with it: that part is the track's own positions falling behind, which is
// audio the sound server lost on it. A step the other tracks share (their timing answers came late:
// a loaded machine) or that nothing can be compared with is doubtful, logged and not filled. The
// first settled step of a take is logged with its size at once, all of them together when the take
// ends.
class AudioPath
{
public:
    enum Source { Mic = 0, Sys = 1, Room = 2 };
    static constexpr int kSources = 3;
    /// Most audio waiting on q per source, in milliseconds: more than the sound server's queue
    /// for one stream holds (4 MB: 21.8 s of mono float at 48 kHz, 10.9 s of stereo).
    static constexpr int kMaxQueuedMs = 22000;
    /// Audio of the other tracks after a step that its verdict waits for, at least and at most.
    static constexpr int64_t kJudgeNs = 100000000;
    static constexpr int64_t kMaxJudgeNs = 300000000;
    /// A witness whose stamps moved less than this held still (seconds).
    static constexpr double kWitnessStillSeconds = 0.001;
    /// Smallest share of a step that is mended as the track's own loss (less is the jitter of
    /// stamps that went late together).
    static constexpr double kOwnShare = 0.4;

    /// A path on queue `q`; `listening` says whether live audio is wanted.
    AudioPath(SerialQueue &q, const std::atomic<bool> &listening);
    ~AudioPath();
    AudioPath(const AudioPath &) = delete;
    AudioPath &operator=(const AudioPath &) = delete;

    /// Any thread: a new stream of `source` starts; blocks of earlier streams are ignored from now.
    int newStream(Source source);
    /// Any thread (the sound server's): hands one block of stream `generation` over to q, or
    /// drops and counts it when q already holds kMaxQueuedMs of that source.
    void post(Source source, int generation, AudioBuffer &&buffer);

    /// Main thread: blocks go to `take` from now on (posted to q).
    void beginTake(std::shared_ptr<Take> take);
    /// Main thread: writes the audio still held by drift correction, ends the take's audio tracks
    /// and lets the take go; `done` runs on q afterwards (posted).
    void endTake(std::function<void()> done);

    /// Peak levels of microphone and computer audio since the last call, then reset. Never waits.
    float takePeak(Source source);
    /// Blocks dropped so far because q was full, per source (tests, benchmarks).
    long long dropped(Source source) const { return m_dropped[source]; }

    /// One live-audio block of at least kLiveChunkBytes (blocks the server hands out smaller are
    /// gathered, so a listener gets one message per 20 ms, not per server block); source 0 =
    /// microphone, 1 = computer audio; called on q.
    std::function<void(quint8 source, const QByteArray &pcm)> onLiveAudio;
    /// Smallest live-audio block: 20 ms of 16-bit mono at 48 kHz.
    static constexpr int kLiveChunkBytes = 2 * 48000 / 50;

private:
    void onAudio(Source source, int generation, const AudioBuffer &buffer);
    void write(Source source, const std::vector<TimedSample> &samples);
    void raisePeak(Source source, float peak);
    void reportDrops();
    void judgeSteps(bool final);
    void noteSteps(Source source, const QString &why = {});
    void reportSteps();
    static QString stepText(int64_t frames);

    SerialQueue &m_q;
    const std::atomic<bool> &m_listening;
    std::atomic<int> m_generation[kSources] = {0, 0, 0};
    std::atomic<int64_t> m_queuedFrames[kSources] = {0, 0, 0};
    std::atomic<long long> m_dropped[kSources] = {0, 0, 0};
    std::atomic<float> m_peak[kSources] = {0.f, 0.f, 0.f};

    // Owned by q.
    std::shared_ptr<Take> m_take;
    std::unique_ptr<DriftCorrector> m_drift[kSources];
    int m_driftGeneration[kSources] = {-1, -1, -1};
    std::unique_ptr<LiveConverter> m_live[2];
    QByteArray m_liveHeld[2]; // live audio gathered towards kLiveChunkBytes
    long long m_reported[kSources] = {0, 0, 0};
    DriftCorrector::Steps m_steps[kSources]; // mended in this take
    bool m_noticed[kSources] = {};           // the take's start sync has heard of this source
};
