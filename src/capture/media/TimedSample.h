#pragma once

#include "MediaTime.h"

#include <QByteArray>

#include <memory>

struct AVFrame;

// One timed piece of media as capture delivers it, shared by audio and video paths.
// Times are on CLOCK_MONOTONIC.
struct TimedSample {
    enum class Kind { Audio, Video };

    Kind kind = Kind::Audio;
    MediaTime pts;      // presentation time of the first sample / the frame
    MediaTime duration; // length of the block / frame

    // Audio: interleaved 32-bit float PCM.
    int sampleRate = 0;
    int channels = 0;
    QByteArray pcm;

    // Video: a reference-counted decoded frame (width, height and pixel format inside).
    std::shared_ptr<AVFrame> frame;

    /// Number of audio frames (samples per channel) in pcm.
    int frameCount() const { return channels > 0 ? int(pcm.size() / qsizetype(sizeof(float) * channels)) : 0; }
    /// A sample carries a valid time and data.
    bool isValid() const { return pts.isValid() && (kind == Kind::Audio ? frameCount() > 0 : frame != nullptr); }
};
