#pragma once

#include "CameraBackend.h"
#include "FrameDecoder.h"

#include <atomic>
#include <thread>
#include <vector>

// One open V4L2 capture node: memory-mapped buffers, streaming on its own thread, each frame
// decoded and stamped with the driver's CLOCK_MONOTONIC time.
class V4L2Camera : public CameraStream
{
public:
    /// Opens the node at `path`, asks for `wanted` when offered and starts streaming.
    static CameraOpen open(const Device &device, const QString &path, QSize wanted, CameraBackend::FrameSink sink);
    /// The recorder's text for an errno from opening or starting a node.
    static QString textForErrno(int error);

    ~V4L2Camera() override;

    QString uid() const override { return m_device.uid; }
    QString name() const override { return m_device.name; }
    QSize size() const override { return m_size; }
    bool running() const override { return m_running; }

private:
    struct Buffer {
        void *start = nullptr;
        size_t length = 0;
    };

    V4L2Camera(const Device &device, int fd, CameraBackend::FrameSink sink);
    QString configure(QSize wanted);
    QString startStreaming();
    void run();
    void release();

    const Device m_device;
    const int m_fd;
    const CameraBackend::FrameSink m_sink;
    int m_wakeFd = -1;
    QSize m_size;
    std::vector<Buffer> m_buffers;
    FrameDecoder m_decoder;
    bool m_streaming = false;
    std::atomic<bool> m_running{false};
    std::thread m_thread;
};
