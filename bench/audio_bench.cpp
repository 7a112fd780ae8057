// Figures of the audio recording engine, printed on one run:
//  1. CPU time to record microphone (mono) and computer audio (stereo) per minute of audio,
//     through the whole path (drift correction, start sync, AAC writers, live converters);
//  2. time from a capture block's arrival to its live-audio frame being handed on (median, p99),
//     with blocks arriving in real time every 10 ms, then from the real sound servers the test
//     script starts (PULSE_SERVER for PulseAudio, BRAVA_TEST_PIPEWIRE_SERVER for PipeWire; a
//     server that is not given is left out): see scripts/test-sound-server;
//  3. encode speed of the track writer against the ffmpeg command line encoding the same PCM with
//     the same settings (a ratio; above 1 means the writer is faster).
#include "SyntheticCameraBackend.h"
#include "Clock.h"
#include "PulseBackend.h"
#include "ManualClock.h"
#include "Recorder.h"
#include "SerialQueue.h"
#include "SyntheticAudioBackend.h"
#include "TrackWriter.h"
#include "DataFolder.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <deque>
#include <ctime>
#include <mutex>
#include <thread>
#include <vector>

namespace {
double cpuSeconds()
{
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

// Speech-like test signal: a few tones with a slow envelope, plus a little noise.
QByteArray signal(int64_t firstFrame, int frames, int channels)
{
    QByteArray pcm(frames * channels * int(sizeof(float)), Qt::Uninitialized);
    auto *p = reinterpret_cast<float *>(pcm.data());
    uint32_t noise = uint32_t(firstFrame * 2654435761u);
    for (int i = 0; i < frames; ++i) {
        const double t = double(firstFrame + i) / 48000.0;
        const double env = 0.5 + 0.5 * std::sin(2 * M_PI * 3.0 * t);
        noise = noise * 1664525u + 1013904223u;
        const float v = float(env * (0.2 * std::sin(2 * M_PI * 220 * t) + 0.1 * std::sin(2 * M_PI * 1330 * t))
                              + 0.02 * (double(noise >> 8) / double(1 << 24) - 0.5));
        for (int c = 0; c < channels; ++c)
            p[i * channels + c] = v;
    }
    return pcm;
}

void startAndWait(Recorder &rec, const std::optional<QString> &session)
{
    bool started = false;
    rec.start(session, {DataFolder::pathOf(QStringLiteral("writing"))}, [&] { started = true; });
    while (!started)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
}

void stopAndWait(Recorder &rec)
{
    bool stopped = false;
    rec.stop([&] { stopped = true; });
    while (!stopped)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
}

double recordingCpuPerMinute(int minutes)
{
    ManualClock clock(1000000000);
    SyntheticAudioBackend backend(clock);
    backend.devices = {Device{QStringLiteral("mic"), QStringLiteral("Mic"), false, true}};
    backend.monitor = QStringLiteral("out.monitor");
    SyntheticCameraBackend cameras({});
    Recorder rec(backend, cameras, clock);
    rec.listening = true;
    rec.onLiveAudio = [](quint8, const QByteArray &) {};
    startAndWait(rec, QStringLiteral("bench"));
    const double cpu0 = cpuSeconds();
    const int64_t blocks = int64_t(minutes) * 60 * 100;
    for (int64_t b = 0; b < blocks; ++b) {
        const int64_t at = 1000000000 + b * 10000000;
        clock.set(at + 10000000);
        backend.deliver(QStringLiteral("mic"), signal(b * 480, 480, 1), at);
        backend.deliver(QStringLiteral("out.monitor"), signal(b * 480, 480, 2), at);
        if (b % 100 == 0)
            rec.audioQueue().sync([] {}); // keep the queue short, as real time would
    }
    stopAndWait(rec);
    return (cpuSeconds() - cpu0) / minutes;
}

void liveLatency(double *median, double *p99)
{
    SyntheticAudioBackend backend;
    backend.devices = {Device{QStringLiteral("mic"), QStringLiteral("Mic"), false, true}};
    backend.monitor = QStringLiteral("out.monitor");
    SyntheticCameraBackend cameras({});
    Recorder rec(backend, cameras, Clock::monotonic());
    rec.listening = true;
    std::mutex mutex;
    std::vector<double> ms;
    int64_t pendingArrival = 0;
    rec.onLiveAudio = [&](quint8 source, const QByteArray &) {
        if (source != 0)
            return;
        std::lock_guard lock(mutex);
        ms.push_back(double(Clock::monotonic().nowNs() - pendingArrival) / 1e6); // from the block that completed the frame
    };
    startAndWait(rec, std::nullopt);
    const int64_t start = Clock::monotonic().nowNs();
    for (int b = 0; b < 500; ++b) { // 5 s in real time
        const int64_t due = start + int64_t(b) * 10000000;
        while (Clock::monotonic().nowNs() < due)
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        {
            std::lock_guard lock(mutex);
            pendingArrival = Clock::monotonic().nowNs();
        }
        backend.deliver(QStringLiteral("mic"), signal(b * 480, 480, 1), due);
        backend.deliver(QStringLiteral("out.monitor"), signal(b * 480, 480, 2), due);
    }
    rec.audioQueue().sync([] {});
    stopAndWait(rec);
    std::lock_guard lock(mutex);
    std::sort(ms.begin(), ms.end());
    *median = ms.empty() ? 0 : ms[ms.size() / 2];
    *p99 = ms.empty() ? 0 : ms[std::min(ms.size() - 1, size_t(double(ms.size()) * 0.99))];
}

// A sound server's backend that notes when each block of `source` arrives, then hands it on.
class ArrivalClock final : public AudioBackend
{
public:
    ArrivalClock(AudioBackend &inner, QString source) : m_inner(inner), m_source(std::move(source)) {}
    Access access() override { return m_inner.access(); }
    QList<Device> inputs() override { return m_inner.inputs(); }
    std::optional<QString> outputMonitor(QString *reason) override { return m_inner.outputMonitor(reason); }
    std::unique_ptr<AudioCapture> open(const QString &source, int rate, int channels, Handlers handlers, QString *error) override
    {
        if (source == m_source) {
            handlers.onBuffer = [this, next = std::move(handlers.onBuffer)](AudioBuffer &&b) {
                arrived(Clock::monotonic().nowNs());
                next(std::move(b));
            };
        }
        return m_inner.open(source, rate, channels, std::move(handlers), error);
    }
    Clock &clock() override { return m_inner.clock(); }
    bool answering() const override { return m_inner.answering(); }
    void watch(std::function<void()> onChanged) override { m_inner.watch(std::move(onChanged)); }

    /// Arrival time of the oldest block not yet handed on (0 when none).
    int64_t takeArrival()
    {
        std::lock_guard lock(m_mutex);
        if (m_arrivals.empty())
            return 0;
        const int64_t at = m_arrivals.back(); // the block that completed the frame
        m_arrivals.clear();
        return at;
    }

private:
    void arrived(int64_t ns)
    {
        std::lock_guard lock(m_mutex);
        m_arrivals.push_back(ns);
    }
    AudioBackend &m_inner;
    const QString m_source;
    std::mutex m_mutex;
    std::deque<int64_t> m_arrivals;
};

// The same on a real sound server: the microphone of the test devices for 5 s.
bool serverLiveLatency(const QByteArray &server, double *median, double *p99)
{
    qputenv("PULSE_SERVER", server);
    PulseBackend pulse;
    if (!pulse.answering())
        return false;
    ArrivalClock backend(pulse, QStringLiteral("brava_mic"));
    SyntheticCameraBackend cameras({});
    Recorder rec(backend, cameras, Clock::monotonic());
    rec.setMicChoice(QStringLiteral("brava_mic"));
    rec.listening = true;
    std::vector<double> ms;
    std::mutex mutex;
    rec.onLiveAudio = [&](quint8 source, const QByteArray &) {
        const int64_t now = Clock::monotonic().nowNs();
        if (const int64_t at = source == 0 ? backend.takeArrival() : 0) {
            std::lock_guard lock(mutex);
            ms.push_back(double(now - at) / 1e6);
        }
    };
    startAndWait(rec, std::nullopt);
    QElapsedTimer t;
    t.start();
    while (!t.hasExpired(5000))
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    stopAndWait(rec);
    std::lock_guard lock(mutex);
    std::sort(ms.begin(), ms.end());
    *median = ms.empty() ? 0 : ms[ms.size() / 2];
    *p99 = ms.empty() ? 0 : ms[std::min(ms.size() - 1, size_t(double(ms.size()) * 0.99))];
    return !ms.empty();
}

// The main thread against a busy audio queue: 2 s of audio handed over at once (q encodes it),
// then levels are read and the take is stopped. Neither call waits for the encoding.
void mainThreadWaits(double *levelsUs, double *stopMs, double *finishedMs)
{
    ManualClock clock(1000000000);
    SyntheticAudioBackend backend(clock);
    backend.devices = {Device{QStringLiteral("mic"), QStringLiteral("Mic"), false, true}};
    backend.monitor = QStringLiteral("out.monitor");
    SyntheticCameraBackend cameras({});
    Recorder rec(backend, cameras, clock);
    startAndWait(rec, QStringLiteral("busy"));
    for (int64_t b = 0; b < 200; ++b) {
        clock.set(1000000000 + (b + 1) * 10000000);
        backend.deliver(QStringLiteral("mic"), signal(b * 480, 480, 1), 1000000000 + b * 10000000);
        backend.deliver(QStringLiteral("out.monitor"), signal(b * 480, 480, 2), 1000000000 + b * 10000000);
    }
    const int64_t t0 = Clock::monotonic().nowNs();
    rec.takeLevels();
    const int64_t t1 = Clock::monotonic().nowNs();
    bool stopped = false;
    rec.stop([&] { stopped = true; });
    const int64_t t2 = Clock::monotonic().nowNs();
    while (!stopped)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 1);
    *levelsUs = double(t1 - t0) / 1e3;
    *stopMs = double(t2 - t1) / 1e6;
    *finishedMs = double(Clock::monotonic().nowNs() - t1) / 1e6;
}

// Seconds of wall time for the writer and for ffmpeg on the same PCM and settings.
void encodeSpeed(const QString &dir, int channels, int seconds, double *writer, double *cli)
{
    const int frames = seconds * 48000;
    const QByteArray pcm = signal(0, frames, channels);
    const QString raw = dir + QStringLiteral("/pcm.raw");
    QFile f(raw);
    f.open(QIODevice::WriteOnly | QIODevice::Truncate);
    f.write(pcm);
    f.close();

    TrackWriter w(channels == 1 ? QStringLiteral("mic") : QStringLiteral("sys"), {DataFolder::pathOf(QStringLiteral("writing"))});
    w.begin(QStringLiteral("encode"), channels);
    QElapsedTimer t;
    t.start();
    const int block = 480;
    for (int at = 0; at < frames; at += block) {
        TimedSample s;
        s.kind = TimedSample::Kind::Audio;
        s.pts = MediaTime::fromNanoseconds(1000000000 + int64_t(at) * 1000000000 / 48000);
        s.duration = MediaTime::make(block, 48000);
        s.sampleRate = 48000;
        s.channels = channels;
        s.pcm = pcm.mid(qsizetype(at) * channels * 4, qsizetype(block) * channels * 4);
        w.append(s);
    }
    w.close(true);
    *writer = double(t.nsecsElapsed()) / 1e9;

    QProcess p;
    t.restart();
    p.start(QStringLiteral("ffmpeg"),
            {"-v", "error", "-y", "-f", "f32le", "-ar", "48000", "-ac", QString::number(channels), "-i", raw, "-c:a", "aac",
             "-b:a", channels == 1 ? "64k" : "128k", "-movflags", "frag_keyframe+delay_moov+default_base_moof",
             "-frag_duration", "2000000", "-f", "ipod", dir + QStringLiteral("/cli.m4a")});
    p.waitForFinished(600000);
    *cli = p.exitCode() == 0 ? double(t.nsecsElapsed()) / 1e9 : 0;
}
} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QTemporaryDir home;
    qputenv("XDG_DATA_HOME", QFile::encodeName(home.path()));
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(home.path()));

    const int minutes = 2;
    const double cpu = recordingCpuPerMinute(minutes);
    std::printf("recording mic (mono 64k) + sys (stereo 128k), full path: %.2f s CPU per minute of audio (%.2f %% of one core)\n",
                cpu, cpu / 60.0 * 100.0);

    double levelsUs = 0, stopMs = 0, finishedMs = 0;
    mainThreadWaits(&levelsUs, &stopMs, &finishedMs);
    std::printf("main thread with 2 s of audio queued: takeLevels %.1f us, stop() returns after %.2f ms, files finished after %.0f ms\n",
                levelsUs, stopMs, finishedMs);

    double median = 0, p99 = 0;
    liveLatency(&median, &p99);
    std::printf("live audio, block arrival to frame handed on: median %.3f ms, p99 %.3f ms\n", median, p99);
    const QByteArray servers[][2] = {{"PulseAudio", qgetenv("PULSE_SERVER")}, {"PipeWire", qgetenv("BRAVA_TEST_PIPEWIRE_SERVER")}};
    for (const auto &[name, address] : servers) {
        if (!address.isEmpty() && serverLiveLatency(address, &median, &p99))
            std::printf("live audio on %s, block arrival to frame handed on: median %.3f ms, p99 %.3f ms\n",
                        name.constData(), median, p99);
        else
            std::printf("live audio on %s: no server given or none answering\n", name.constData());
    }

    for (int channels : {1, 2}) {
        double writer = 0, cli = 0;
        encodeSpeed(home.path(), channels, 120, &writer, &cli);
        std::printf("encode 120 s %s: writer %.2f s, ffmpeg command line %.2f s, ratio %.2f\n",
                    channels == 1 ? "mono 64k" : "stereo 128k", writer, cli, writer > 0 ? cli / writer : 0.0);
    }
    return 0;
}
