#pragma once

#include "CameraBackend.h"

#include <atomic>
#include <thread>

// One synthetic camera: a capture thread that draws the test pattern at a steady rate and stamps
// each frame with the CLOCK_MONOTONIC time at which it was made. The counter drawn in starts at
// `counterBase` (camera n uses n × 10,000,000) and the picture has camera `number`'s tint, so a
// picture tells which camera made it.
class SyntheticCamera : public CameraStream
{
public:
    SyntheticCamera(const Device &device, QSize size, int fps, int number, int64_t counterBase, CameraBackend::FrameSink sink);
    ~SyntheticCamera() override;

    QString uid() const override { return m_device.uid; }
    QString name() const override { return m_device.name; }
    QSize size() const override { return m_size; }
    bool running() const override { return m_running; }

    /// Makes every synthetic camera show a white frame at the first frame at or after `ns`
    /// (CLOCK_MONOTONIC nanoseconds); 0 turns flashing off.
    static void flashAt(int64_t ns);
    /// Capture time of the last white frame drawn (0 when none since flashAt).
    static int64_t lastFlashNs();

private:
    void run();

    const Device m_device;
    const QSize m_size;
    const int m_fps;
    const int m_number;
    const int64_t m_counterBase;
    const CameraBackend::FrameSink m_sink;
    std::atomic<bool> m_stop{false};
    std::atomic<bool> m_running{false};
    int64_t m_flashed = 0; // the flash request already shown
    std::thread m_thread;
};
