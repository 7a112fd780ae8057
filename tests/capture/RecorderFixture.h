#pragma once

#include "CameraBackend.h"
#include "DataFolder.h"
#include "ManualClock.h"
#include "Recorder.h"
#include "SerialQueue.h"
#include "SyntheticAudioBackend.h"
#include "SyntheticCameraBackend.h"

#include <QFileInfo>
#include <QtTest>

#include <atomic>
#include <cmath>
#include <ctime>
#include <mutex>
#include <thread>

// One recorder on a synthetic sound system ("laptop" built-in and "usbmic" microphones, computer
// audio from "out.monitor"), or on the real backend handed in, and synthetic cameras that can be
// unplugged, on a clock the test moves (ManualClock) or the real one. Collects finished segments
// and preview pictures.
struct RecorderFixture {
    // Synthetic cameras, one of which the test can unplug: it stops delivering and cannot open.
    struct Cameras final : CameraBackend {
        struct Stream final : CameraStream {
            std::unique_ptr<CameraStream> inner;
            const Cameras &owner;
            Stream(std::unique_ptr<CameraStream> s, const Cameras &o) : inner(std::move(s)), owner(o) {}
            QString uid() const override { return inner->uid(); }
            QString name() const override { return inner->name(); }
            QSize size() const override { return inner->size(); }
            bool running() const override { return inner->running() && !owner.isUnplugged(uid()); }
        };
        SyntheticCameraBackend synthetic;
        std::atomic<int> unplugged{0}; // number of the unplugged camera, 0 for none
        explicit Cameras(int count) : synthetic({count, {320, 180}, 30}) {}
        bool isUnplugged(const QString &uid) const { return uid == QStringLiteral("synthetic-%1").arg(unplugged.load()); }
        QList<Device> list() override { return synthetic.list(); }
        CameraAccess::Status access() const override { return synthetic.access(); }
        CameraOpen open(const QString &uid, QSize wanted, FrameSink sink) override
        {
            if (wanted != QSize(1920, 1080)) // what the recorder asks every camera for
                return {nullptr, QStringLiteral("asked for another size")};
            if (isUnplugged(uid))
                return {nullptr, QStringLiteral("No usable webcam found")};
            CameraOpen o = synthetic.open(uid, wanted, [this, uid, sink](TimedSample f) {
                if (!isUnplugged(uid))
                    sink(std::move(f));
            });
            o.stream = o.stream ? std::make_unique<Stream>(std::move(o.stream), *this) : nullptr;
            return o;
        }
    };

    static inline const QString kMonitor = QStringLiteral("out.monitor");
    std::unique_ptr<ManualClock> manual;
    Clock *clock = &Clock::monotonic();
    std::unique_ptr<SyntheticAudioBackend> audio;
    Cameras cameras;
    WriterSetup setup{DataFolder::pathOf(QStringLiteral("writing"))}; // what each take's writers are given
    std::mutex mutex;
    QList<QPair<QString, QString>> done; // (path, session)
    QList<QByteArray> jpegs;
    QList<std::function<void()>> scheduled; // the 2 s retries, run by the test
    std::unique_ptr<Recorder> rec; // last: it goes first, while what its callbacks fill is still there

    RecorderFixture(int cameraCount, bool manualClock, AudioBackend *real = nullptr) : cameras(cameraCount)
    {
        if (manualClock)
            clock = (manual = std::make_unique<ManualClock>(100000000000LL)).get();
        audio = std::make_unique<SyntheticAudioBackend>(*clock);
        audio->devices = {Device{QStringLiteral("laptop"), QStringLiteral("Laptop Mic"), true, true}, Device{QStringLiteral("usbmic"), QStringLiteral("USB Mic"), false, false}};
        audio->monitor = kMonitor;
        rec = std::make_unique<Recorder>(real ? *real : *audio, cameras, *clock);
        rec->onSegmentDone = [this](const QString &path, const QString &s) { std::lock_guard l(mutex); done.append({path, s}); };
        rec->onPreviewFrame = [this](const QByteArray &jpeg) { std::lock_guard l(mutex); jpegs.append(jpeg); };
        if (!real)
            rec->sources().schedule = [this](int ms, std::function<void()> retry) { QCOMPARE(ms, 2000); scheduled.append(std::move(retry)); };
    }

    bool waitFor(const std::function<void(std::function<void()>)> &call)
    {
        bool finished = false;
        call([&] { finished = true; });
        return QTest::qWaitFor([&] { return finished; }, 20000);
    }
    bool start(const std::optional<QString> &s) { return waitFor([&](auto cb) { rec->start(s, setup, cb); }); }
    bool stop() { return waitFor([&](auto cb) { rec->stop(cb); }); }
    /// The last segment's name of `track` in the current take: "<track>_<take>_<index>_final.<ext>".
    QString finalName(const QString &track, const QString &ext = QStringLiteral("m4a"), const QString &index = QStringLiteral("00000")) const { return QStringLiteral("%1_%2_%3_final.%4").arg(track).arg(rec->currentTake()).arg(index, ext); }
    QStringList doneNames(const QString &prefix = QString())
    {
        std::lock_guard lock(mutex);
        QStringList names;
        for (const auto &[path, session] : done)
            if (QFileInfo(path).fileName().startsWith(prefix))
                names << QFileInfo(path).fileName();
        names.sort();
        return names;
    }
    static QString path(const QString &session, const QString &name) { return DataFolder::dir(QStringLiteral("writing")) + QLatin1Char('/') + session + QLatin1Char('/') + name; }
    QList<QByteArray> takeJpegs() { std::lock_guard lock(mutex); return std::exchange(jpegs, {}); }

    // 10 ms of a 440 Hz tone at 0.3 (or of `level` when set), first frame `first`.
    static QByteArray tone(int channels, int64_t first, float level = -1)
    {
        QByteArray pcm(480 * channels * int(sizeof(float)), Qt::Uninitialized);
        auto *p = reinterpret_cast<float *>(pcm.data());
        for (int i = 0; i < 480 * channels; ++i)
            p[i] = level >= 0 ? level : 0.3f * float(std::sin(2 * M_PI * 440.0 * double(first + i / channels) / 48000.0));
        return pcm;
    }
    // Manual clock: `seconds` of tone from each source from `fromNs`, in 10 ms blocks stamped
    // ± `jitterNs`, the clock moving along and the audio queue handling each block in its time.
    void feed(const QStringList &sources, int64_t fromNs, double seconds, int64_t jitterNs = 0)
    {
        for (int b = 0; b < int(seconds * 100); ++b) {
            const int64_t at = fromNs + b * 10000000LL + (b % 2 ? jitterNs : -jitterNs);
            manual->set(fromNs + (b + 1) * 10000000LL);
            for (const QString &s : sources)
                if (const int channels = audio->openChannels(s))
                    audio->deliver(s, tone(channels, int64_t(b) * 480), at);
            rec->audioQueue().sync([] {});
        }
    }
};

// Real time: 10 ms blocks of near-silence into "usbmic" and the monitor on the monotonic clock,
// with a 1 ms click in the microphone at `clickNs` when set; until destroyed.
struct AudioFeed {
    std::jthread thread;
    explicit AudioFeed(SyntheticAudioBackend &backend, int64_t clickNs = 0)
        : thread([&backend, clickNs](std::stop_token stop) {
            const int64_t start = Clock::monotonic().nowNs();
            for (int64_t b = 0; !stop.stop_requested(); ++b) {
                const int64_t at = start + b * 10000000LL, wake = at + 10000000LL;
                const timespec ts{time_t(wake / 1000000000), long(wake % 1000000000)};
                clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, nullptr);
                QByteArray mono = RecorderFixture::tone(1, 0, 0.001f);
                auto *p = reinterpret_cast<float *>(mono.data());
                for (int i = 0; i < 480 && clickNs; ++i)
                    if (const int64_t since = at + int64_t(i) * 1000000000 / 48000 - clickNs; since >= 0 && since < 1000000)
                        p[i] = 0.9f;
                backend.deliver(QStringLiteral("usbmic"), mono, at);
                backend.deliver(RecorderFixture::kMonitor, RecorderFixture::tone(2, 0, 0), at);
            }
        })
    {
    }
};
