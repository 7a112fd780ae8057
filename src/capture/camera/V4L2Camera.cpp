#include "V4L2Camera.h"

#include "BravaLog.h"
#include "CameraTexts.h"
#include "Clock.h"

#include <QFile>

#include <cerrno>
#include <cstring>
#include <ctime>

#include <fcntl.h>
#include <linux/videodev2.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

constexpr unsigned kBufferCount = 4;

int xioctl(int fd, unsigned long request, void *arg)
{
    int r;
    do {
        r = ioctl(fd, request, arg);
    } while (r < 0 && errno == EINTR);
    return r;
}

bool offersSize(int fd, uint32_t fourcc, QSize size)
{
    v4l2_frmsizeenum fs{};
    fs.pixel_format = fourcc;
    for (fs.index = 0; xioctl(fd, VIDIOC_ENUM_FRAMESIZES, &fs) == 0; ++fs.index) {
        if (fs.type == V4L2_FRMSIZE_TYPE_DISCRETE) {
            if (int(fs.discrete.width) == size.width() && int(fs.discrete.height) == size.height())
                return true;
        } else {
            const auto &s = fs.stepwise;
            return size.width() >= int(s.min_width) && size.width() <= int(s.max_width)
                && size.height() >= int(s.min_height) && size.height() <= int(s.max_height);
        }
    }
    return false;
}

} // namespace

QString V4L2Camera::textForErrno(int error)
{
    if (error == EACCES || error == EPERM)
        return CameraTexts::notAllowed();
    return CameraTexts::busy();
}

CameraOpen V4L2Camera::open(const Device &device, const QString &path, QSize wanted, CameraBackend::FrameSink sink)
{
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        const int error = errno;
        bravaLog(QStringLiteral("camera open ") + path + QStringLiteral(": ") + QString::fromLocal8Bit(strerror(error)));
        return {nullptr, textForErrno(error)};
    }
    std::unique_ptr<V4L2Camera> camera(new V4L2Camera(device, fd, std::move(sink)));
    QString error = camera->configure(wanted);
    if (error.isEmpty())
        error = camera->startStreaming();
    if (!error.isEmpty())
        return {nullptr, error};
    return {std::move(camera), QString()};
}

V4L2Camera::V4L2Camera(const Device &device, int fd, CameraBackend::FrameSink sink)
    : m_device(device)
    , m_fd(fd)
    , m_sink(std::move(sink))
{
}

V4L2Camera::~V4L2Camera()
{
    if (m_thread.joinable()) {
        const uint64_t one = 1;
        [[maybe_unused]] const ssize_t w = ::write(m_wakeFd, &one, sizeof one);
        m_thread.join();
    }
    release();
}

void V4L2Camera::release()
{
    if (m_streaming) {
        v4l2_buf_type type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        xioctl(m_fd, VIDIOC_STREAMOFF, &type);
        m_streaming = false;
    }
    for (Buffer &b : m_buffers) {
        if (b.start && b.start != MAP_FAILED)
            munmap(b.start, b.length);
    }
    m_buffers.clear();
    if (m_wakeFd >= 0)
        ::close(m_wakeFd);
    m_wakeFd = -1;
    ::close(m_fd);
}

// Chooses the format: the wanted size in MJPEG, else in a raw format, else what the driver has.
QString V4L2Camera::configure(QSize wanted)
{
    v4l2_format fmt{};
    fmt.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    if (xioctl(m_fd, VIDIOC_G_FMT, &fmt) < 0)
        return CameraTexts::inputRejected();

    uint32_t chosen = 0;
    uint32_t fallback = 0;
    v4l2_fmtdesc desc{};
    desc.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    for (desc.index = 0; xioctl(m_fd, VIDIOC_ENUM_FMT, &desc) == 0; ++desc.index) {
        if (!FrameDecoder::supports(desc.pixelformat))
            continue;
        if (!fallback)
            fallback = desc.pixelformat;
        if (offersSize(m_fd, desc.pixelformat, wanted)
            && (!chosen || desc.pixelformat == V4L2_PIX_FMT_MJPEG))
            chosen = desc.pixelformat;
    }
    if (chosen) {
        fmt.fmt.pix.pixelformat = chosen;
        fmt.fmt.pix.width = uint32_t(wanted.width());
        fmt.fmt.pix.height = uint32_t(wanted.height());
    } else if (!FrameDecoder::supports(fmt.fmt.pix.pixelformat)) {
        if (!fallback)
            return CameraTexts::outputRejected();
        fmt.fmt.pix.pixelformat = fallback;
    }
    fmt.fmt.pix.field = V4L2_FIELD_ANY;
    fmt.fmt.pix.bytesperline = 0;
    if (xioctl(m_fd, VIDIOC_S_FMT, &fmt) < 0)
        return errno == EBUSY ? CameraTexts::busy() : CameraTexts::outputRejected();
    if (!FrameDecoder::supports(fmt.fmt.pix.pixelformat))
        return CameraTexts::outputRejected();

    m_size = QSize(int(fmt.fmt.pix.width), int(fmt.fmt.pix.height));
    if (!m_decoder.open(fmt.fmt.pix.pixelformat, m_size.width(), m_size.height(), int(fmt.fmt.pix.bytesperline)))
        return CameraTexts::outputRejected();
    return QString();
}

QString V4L2Camera::startStreaming()
{
    v4l2_requestbuffers req{};
    req.count = kBufferCount;
    req.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    req.memory = V4L2_MEMORY_MMAP;
    if (xioctl(m_fd, VIDIOC_REQBUFS, &req) < 0)
        return errno == EBUSY ? CameraTexts::busy() : CameraTexts::outputRejected();
    if (req.count < 2)
        return CameraTexts::outputRejected();

    for (unsigned i = 0; i < req.count; ++i) {
        v4l2_buffer buf{};
        buf.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        buf.memory = V4L2_MEMORY_MMAP;
        buf.index = i;
        if (xioctl(m_fd, VIDIOC_QUERYBUF, &buf) < 0)
            return CameraTexts::outputRejected();
        Buffer b;
        b.length = buf.length;
        b.start = mmap(nullptr, buf.length, PROT_READ | PROT_WRITE, MAP_SHARED, m_fd, buf.m.offset);
        m_buffers.push_back(b);
        if (b.start == MAP_FAILED)
            return CameraTexts::outputRejected();
        if (xioctl(m_fd, VIDIOC_QBUF, &buf) < 0)
            return CameraTexts::outputRejected();
    }

    m_wakeFd = eventfd(0, EFD_CLOEXEC);
    if (m_wakeFd < 0)
        return CameraTexts::failedToStart();
    v4l2_buf_type type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    if (xioctl(m_fd, VIDIOC_STREAMON, &type) < 0)
        return errno == EBUSY ? CameraTexts::busy() : CameraTexts::failedToStart();
    m_streaming = true;
    m_running = true;
    m_thread = std::thread([this] { run(); });
    return QString();
}

void V4L2Camera::run()
{
    pollfd fds[2] = {{m_fd, POLLIN, 0}, {m_wakeFd, POLLIN, 0}};
    for (;;) {
        const int r = poll(fds, 2, 2000);
        if (r < 0 && errno == EINTR)
            continue;
        if (r < 0 || (fds[1].revents & POLLIN) || (fds[0].revents & (POLLERR | POLLHUP | POLLNVAL)))
            break;
        if (r == 0 || !(fds[0].revents & POLLIN))
            continue;

        v4l2_buffer buf{};
        buf.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        buf.memory = V4L2_MEMORY_MMAP;
        if (xioctl(m_fd, VIDIOC_DQBUF, &buf) < 0) {
            if (errno == EAGAIN)
                continue;
            break; // unplugged or failed
        }
        const bool monotonic = (buf.flags & V4L2_BUF_FLAG_TIMESTAMP_MASK) == V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC;
        const int64_t ns = monotonic ? int64_t(buf.timestamp.tv_sec) * 1000000000 + int64_t(buf.timestamp.tv_usec) * 1000
                                     : Clock::monotonic().nowNs();
        std::shared_ptr<AVFrame> frame;
        if (!(buf.flags & V4L2_BUF_FLAG_ERROR) && buf.index < m_buffers.size())
            frame = m_decoder.decode(static_cast<const uint8_t *>(m_buffers[buf.index].start), buf.bytesused);
        if (xioctl(m_fd, VIDIOC_QBUF, &buf) < 0)
            break;
        if (!frame)
            continue; // a damaged frame is skipped
        TimedSample sample;
        sample.kind = TimedSample::Kind::Video;
        sample.pts = MediaTime::fromNanoseconds(ns);
        sample.frame = std::move(frame);
        m_sink(std::move(sample));
    }
    m_running = false;
}
