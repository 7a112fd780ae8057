#pragma once

#include "Clock.h"
#include "Device.h"

#include <QByteArray>
#include <QList>
#include <QString>

#include <functional>
#include <memory>
#include <optional>

// One block of captured audio as a backend delivers it: interleaved 32-bit float PCM and the
// CLOCK_MONOTONIC time at which its first frame was captured.
struct AudioBuffer {
    QByteArray pcm;
    int rate = 0;
    int channels = 0;
    int64_t captureNs = 0;
    bool discontinuity = false; // data was lost or the device paused just before this block
    // The server's own positions show audio of this stream lost before this block: its write
    // position fell `lostFrames` behind the clock (for a whole window of snapshots, not one late
    // answer), from the frame stamped `lostAtNs` on the stamps before it. 0: nothing shown.
    int lostFrames = 0;
    int64_t lostAtNs = 0;

    /// Frames (samples per channel) in the block.
    int frames() const { return channels > 0 ? int(pcm.size() / qsizetype(sizeof(float) * channels)) : 0; }
};

// A running capture of one source. Destroying it stops the capture; no callback runs after the
// destructor has returned.
class AudioCapture
{
public:
    virtual ~AudioCapture() = default;
};

// The sound system as the recorder needs it: list microphones, name the computer-audio source
// (the default output's monitor), open captures. Queries answer from what the backend already
// knows and never wait for the sound system. Callbacks come on the backend's own thread and must
// only copy and hand over.
class AudioBackend
{
public:
    struct Handlers {
        std::function<void(AudioBuffer &&buffer)> onBuffer;
        std::function<void(const QString &reason)> onFailed; // the stream could not start, or died
    };
    enum class Access { Unknown, Allowed, Refused };

    virtual ~AudioBackend() = default;

    /// Whether the sound system accepts this program (Unknown: no sound system answered).
    virtual Access access() = 0;
    /// Microphones: input sources that are not monitors, in the server's order.
    virtual QList<Device> inputs() = 0;
    /// The source carrying what the computer plays; none with `reason` set when there is none.
    virtual std::optional<QString> outputMonitor(QString *reason) = 0;
    /// Opens a capture of `source` at `rate` and `channels` without waiting for the device; none
    /// with `error` set when that fails at once, later failures come through Handlers::onFailed.
    virtual std::unique_ptr<AudioCapture> open(const QString &source, int rate, int channels, Handlers handlers,
                                               QString *error) = 0;
    /// The clock the capture time stamps are on.
    virtual Clock &clock() = 0;
    /// Whether the server answered its last health check in time (false while it is hung or gone).
    virtual bool answering() const { return true; }
    /// Calls `onChanged` (on any thread) whenever access, inputs, the default output's monitor or
    /// answering() may have changed; an empty function stops it. One watcher at a time.
    virtual void watch(std::function<void()> onChanged) { (void)onChanged; }
};
