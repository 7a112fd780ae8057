#pragma once

#include "TimedSample.h"

#include <cmath>
#include <cstring>
#include <vector>

// Synthetic audio for tests: blocks of interleaved float PCM with exact time stamps.
namespace AudioSignal {

/// A block of `frames` samples starting at `ptsNs`, every channel carrying gen(i) for sample i.
template<typename Gen>
inline TimedSample block(int64_t ptsNs, int frames, int channels, Gen gen, int rate = 48000)
{
    TimedSample s;
    s.kind = TimedSample::Kind::Audio;
    s.pts = MediaTime::fromNanoseconds(ptsNs);
    s.duration = MediaTime::make(frames, rate);
    s.sampleRate = rate;
    s.channels = channels;
    s.pcm.resize(qsizetype(frames) * channels * qsizetype(sizeof(float)));
    auto *out = reinterpret_cast<float *>(s.pcm.data());
    for (int i = 0; i < frames; ++i)
        for (int c = 0; c < channels; ++c)
            out[i * channels + c] = gen(i);
    return s;
}

/// Silence.
inline TimedSample silence(int64_t ptsNs, int frames, int channels = 1, int rate = 48000)
{
    return block(ptsNs, frames, channels, [](int) { return 0.0f; }, rate);
}

/// Deterministic white noise at the given amplitude (for bit-rate checks).
struct Noise {
    uint32_t state = 12345;
    float amplitude = 0.3f;
    float operator()(int)
    {
        state = state * 1664525u + 1013904223u;
        return amplitude * (float(state >> 8) / float(1 << 23) - 1.0f);
    }
};

/// Nanoseconds of `frames` samples.
inline int64_t ns(int64_t frames, int rate = 48000) { return frames * 1000000000 / rate; }

} // namespace AudioSignal
