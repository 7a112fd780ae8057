#pragma once

#include <QByteArray>

#include <optional>
#include <vector>

struct SwrContext;

// Turns captured blocks of one source into the live-audio format (48 kHz mono, 16-bit little
// endian) and measures their loudness for the level meters. Lives on the audio queue. The
// loudness is the RMS over the last kLevelFrames, whatever the size of the blocks the server
// hands over (PulseAudio's are a few milliseconds, PipeWire's a quantum): one RMS per block would
// make the same sound read louder in small blocks than in large ones.
class LiveConverter
{
public:
    static constexpr int kLiveRate = 48000;
    /// Frames (at kLiveRate) the level is measured over: 10 ms.
    static constexpr int kLevelFrames = 480;

    LiveConverter() = default;
    ~LiveConverter();
    LiveConverter(const LiveConverter &) = delete;
    LiveConverter &operator=(const LiveConverter &) = delete;

    /// Converts one block of interleaved float PCM; always updates the peak, returns the 16-bit
    /// chunk only when wantPCM is set.
    std::optional<QByteArray> process(const float *interleaved, int frames, int rate, int channels, bool wantPCM);
    /// The largest RMS level over kLevelFrames since the last call, then 0.
    float takePeak();

    /// Output frames reserved for `frames` input frames at `rate`.
    static int outputCapacity(int frames, int rate);
    /// One float sample as a symmetric 16-bit value (never −32768).
    static int16_t toPcm16(float sample);

private:
    bool rebuild(int rate, int channels);

    SwrContext *m_swr = nullptr;
    int m_rate = 0;
    int m_channels = 0;
    float m_peak = 0;
    std::vector<double> m_squares = std::vector<double>(kLevelFrames, 0.0); // the newest, a ring
    size_t m_next = 0;
    double m_sum = 0;
};
