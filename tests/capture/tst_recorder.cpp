#include "SyntheticCameraBackend.h"
#include "AudioSignal.h"
#include "Config.h"
#include "DriftCorrector.h"
#include "ManualClock.h"
#include "MediaProbe.h"
#include "Recorder.h"
#include "SerialQueue.h"
#include "SyntheticAudioBackend.h"
#include "TestHome.h"

#include <QDir>
#include <QDirIterator>
#include <QtTest>

#include <cmath>

namespace {
constexpr int64_t kSecond = 1000000000;
const QString kMonitor = QStringLiteral("out.monitor");

QByteArray toneBlock(int frames, int channels, int64_t firstFrame)
{
    QByteArray pcm(frames * channels * int(sizeof(float)), Qt::Uninitialized);
    auto *p = reinterpret_cast<float *>(pcm.data());
    for (int i = 0; i < frames; ++i)
        for (int c = 0; c < channels; ++c)
            p[i * channels + c] = 0.3f * float(std::sin(2 * M_PI * 440.0 * double(firstFrame + i) / 48000.0));
    return pcm;
}
} // namespace

// The recording session on a synthetic sound system and a clock the test moves: takes, the start
// sync, source failures and their texts, live audio and levels.
class RecorderTest : public QObject
{
    Q_OBJECT
    TestHome home;
    ManualClock *clock = nullptr;
    SyntheticAudioBackend *backend = nullptr;
    SyntheticCameraBackend noCameras{SyntheticCameraBackend::Setup{}};
    Recorder *rec = nullptr;
    QList<QPair<QString, QString>> done; // (path, session)
    QList<std::function<void()>> scheduled;

    // Delivers `seconds` of tone from each named source starting at monotonic `fromNs`, in 10 ms
    // blocks, moving the clock along and letting the audio queue handle each block in its time.
    void feed(const QStringList &sources, int64_t fromNs, double seconds)
    {
        const int blocks = int(seconds * 100);
        for (int b = 0; b < blocks; ++b) {
            const int64_t at = fromNs + b * 10000000LL;
            clock->set(at + 10000000LL);
            for (const QString &s : sources) {
                const int channels = backend->openChannels(s);
                if (channels)
                    backend->deliver(s, toneBlock(480, channels, int64_t(b) * 480), at);
            }
            rec->audioQueue().sync([] {}); // the gate reads the clock when the block is handled
        }
    }

    void startTake(const std::optional<QString> &session)
    {
        bool started = false;
        rec->start(session, [&] { started = true; });
        QTRY_VERIFY(started);
    }

    void stopTake()
    {
        bool stopped = false;
        rec->stop([&] { stopped = true; });
        QTRY_VERIFY(stopped);
    }

    QStringList files(const QString &session) const
    {
        QStringList out;
        QDirIterator it(Config::dir(QStringLiteral("writing")) + QLatin1Char('/') + session, QDir::Files);
        while (it.hasNext())
            out.append(QFileInfo(it.next()).fileName());
        out.sort();
        return out;
    }

private slots:
    void init()
    {
        home.wipe();
        clock = new ManualClock(100 * kSecond);
        backend = new SyntheticAudioBackend(*clock);
        backend->devices = {Device{QStringLiteral("laptop"), QStringLiteral("Laptop Mic"), true, true},
                            Device{QStringLiteral("usbmic"), QStringLiteral("USB Mic"), false, false}};
        backend->monitor = kMonitor;
        rec = new Recorder(*backend, noCameras, *clock);
        done.clear();
        scheduled.clear();
        rec->onSegmentDone = [this](const QString &path, const QString &session) { done.append({path, session}); };
        rec->schedule = [this](int ms, std::function<void()> action) {
            QCOMPARE(ms, 2000);
            scheduled.append(std::move(action));
        };
    }
    void cleanup()
    {
        delete rec;
        delete backend;
        delete clock;
    }

    // A take records mic, sys and the built-in room microphone from one common start and turns
    // them into "_final" files reported with the session.
    void takeWritesEveryTrack()
    {
        startTake(QStringLiteral("S1"));
        QVERIFY(!rec->lastError());
        QCOMPARE(rec->micName(), QStringLiteral("USB Mic"));
        QCOMPARE(rec->roomName(), QStringLiteral("Laptop Mic"));
        QVERIFY(rec->isRecording());
        const int64_t t = clock->nowNs();
        feed({QStringLiteral("usbmic"), QStringLiteral("laptop")}, t, 0.3); // sys not yet there
        feed({QStringLiteral("usbmic"), QStringLiteral("laptop"), kMonitor}, t + 300000000, 1.5);
        stopTake();
        QVERIFY(!rec->isRecording());
        const QString take = QString::number(rec->currentTake());
        QCOMPARE(files(QStringLiteral("S1")),
                 QStringList({"mic_" + take + "_00000_final.m4a", "room_" + take + "_00000_final.m4a",
                              "sys_" + take + "_00000_final.m4a"}));
        QCOMPARE(done.size(), 3);
        for (const auto &[path, session] : done)
            QCOMPARE(session, QStringLiteral("S1"));
        QVERIFY(home.log().contains("capture started session=S1"));
        QVERIFY(home.log().contains("mic: USB Mic"));
        QVERIFY(home.log().contains("computer mic: Laptop Mic"));
        QVERIFY(home.log().contains("sync: all tracks locked to one start"));
        QVERIFY(home.log().contains("capture stopped"));
        if (MediaProbe::available()) {
            // All tracks start at the common start (when sys arrived): 1.5 s each.
            for (const auto &[path, session] : done) {
                const double seconds = MediaProbe::decode(path).size() / 48000.0;
                QVERIFY2(std::fabs(seconds - 1.5) < 0.03, qPrintable(path + " " + QString::number(seconds)));
            }
        }
    }

    // Without a session the recorder only captures: levels and live audio, no files.
    void soundTestWritesNothing()
    {
        rec->listening = true;
        QList<QPair<quint8, int>> live;
        rec->onLiveAudio = [&](quint8 source, const QByteArray &pcm) { live.append({source, int(pcm.size())}); };
        startTake(std::nullopt);
        QVERIFY(rec->running() && !rec->isRecording());
        feed({QStringLiteral("usbmic"), kMonitor}, clock->nowNs(), 0.5);
        const Recorder::Levels levels = rec->takeLevels();
        QVERIFY(levels.mic > 0.15f && levels.sys > 0.15f); // RMS of a 0.3 sine is 0.21
        QCOMPARE(rec->takeLevels().mic, 0.0f);
        QCOMPARE(live.size(), 100);
        QCOMPARE(live.first(), qMakePair(quint8(0), 960));
        QCOMPARE(live.at(1), qMakePair(quint8(1), 960));
        rec->listening = false;
        feed({QStringLiteral("usbmic")}, clock->nowNs(), 0.1);
        QCOMPARE(live.size(), 100);
        stopTake();
        QVERIFY(home.log().contains("capture started session=TEST"));
        QVERIFY(done.isEmpty());
        QVERIFY(QDir(Config::dir(QStringLiteral("writing"))).entryList(QDir::NoDotAndDotDot | QDir::AllEntries).isEmpty());
    }

    // Starting while running finishes the previous take first; a new take numbers from 00000.
    void startWhileRunningFinishesTheTake()
    {
        startTake(QStringLiteral("A"));
        feed({QStringLiteral("usbmic"), kMonitor}, clock->nowNs(), 0.3);
        const qint64 first = rec->currentTake();
        QTest::qWait(5);
        startTake(QStringLiteral("B"));
        QVERIFY(rec->currentTake() > first);
        QCOMPARE(done.size(), 2);
        QVERIFY(done[0].first.endsWith("_00000_final.m4a") && done[0].second == QStringLiteral("A"));
        feed({QStringLiteral("usbmic"), kMonitor}, clock->nowNs(), 0.3);
        stopTake();
        QCOMPARE(done.size(), 4);
        QVERIFY(done[2].first.contains(QStringLiteral("/B/")) && done[2].first.endsWith("_00000_final.m4a"));

        // Stopping again does nothing and logs nothing.
        const QString log = home.log();
        stopTake();
        QCOMPARE(home.log(), log);
    }

    // Computer audio that never arrives: the sync waits 2 s after the first sample, then starts
    // without it at the microphone's first time; what was held back while waiting is dropped, so
    // the file begins with silence and the audio keeps its place. The wait counts from the first
    // sample reaching the gate, which is after the drift corrector has placed the time line.
    void missingOutputTimesOut()
    {
        backend->monitor.reset();
        startTake(QStringLiteral("S2"));
        QCOMPARE(rec->lastError().value_or(QString()), QStringLiteral("No audio output found"));
        feed({QStringLiteral("usbmic")}, clock->nowNs(), 2.5);
        stopTake();
        QVERIFY(home.log().contains("sync: started without sys (timed out)"));
        QCOMPARE(files(QStringLiteral("S2")).size(), 1);
        if (MediaProbe::available()) {
            const QVector<float> pcm = MediaProbe::decode(done.value(0).first);
            QVERIFY2(std::fabs(pcm.size() / 48000.0 - 2.5) < 0.03, qPrintable(QString::number(pcm.size())));
            const double firstSound = MediaProbe::firstAbove(pcm, 0.05f) / 48000.0;
            const double expected = 2.0 + DriftCorrector::kSettleSeconds;
            QVERIFY2(firstSound > expected - 0.01 && firstSound < expected + 0.04, qPrintable(QString::number(firstSound)));
        }
    }

    // Refusals: a refused monitor leaves the microphone recording; a refused server blocks both.
    void refusalsAndTheirTexts()
    {
        backend->refused = {kMonitor};
        startTake(QStringLiteral("S3"));
        QCOMPARE(rec->lastError().value_or(QString()), QStringLiteral("Computer audio blocked — re-run setup on this computer"));
        QVERIFY(backend->openChannels(QStringLiteral("usbmic")) == 1);
        stopTake();

        backend->refused.clear();
        backend->accessAnswer = AudioBackend::Access::Refused;
        startTake(QStringLiteral("S4"));
        QCOMPARE(rec->lastError().value_or(QString()), QStringLiteral("Microphone blocked — re-run setup on this computer"));
        QVERIFY(home.log().contains("computer mic: none"));
        stopTake();

        backend->accessAnswer = AudioBackend::Access::Allowed;
        backend->devices.clear();
        startTake(QStringLiteral("S5"));
        QCOMPARE(rec->lastError().value_or(QString()), QStringLiteral("No microphone found"));
        stopTake();

        // A microphone that is listed but cannot be opened is no usable microphone either.
        backend->devices = {Device{QStringLiteral("usbmic"), QStringLiteral("USB Mic"), false, true}};
        backend->refused = {QStringLiteral("usbmic")};
        startTake(QStringLiteral("S5b"));
        QCOMPARE(rec->lastError().value_or(QString()), QStringLiteral("No microphone found"));
        QVERIFY(home.log().contains("mic error: USB Mic"));
        stopTake();
        backend->refused.clear();
    }

    // The computer audio dies under a running take: "Computer audio stopped", one retry after
    // 2 s that reopens it; a stop in between voids the retry.
    void computerAudioStopsAndRetriesOnce()
    {
        startTake(QStringLiteral("S6"));
        QVERIFY(backend->openChannels(kMonitor) == 2);
        QVERIFY(backend->fail(kMonitor, QStringLiteral("device vanished")));
        QTRY_COMPARE(rec->lastError().value_or(QString()), QStringLiteral("Computer audio stopped"));
        QVERIFY(home.log().contains("computer audio stopped: device vanished"));
        QCOMPARE(backend->openChannels(kMonitor), 0);
        QCOMPARE(scheduled.size(), 1);
        scheduled.takeFirst()();
        QCOMPARE(backend->openChannels(kMonitor), 2);

        QVERIFY(backend->fail(kMonitor, QStringLiteral("again")));
        QTRY_COMPARE(scheduled.size(), 1);
        stopTake();
        scheduled.takeFirst()();
        QCOMPARE(backend->openChannels(kMonitor), 0);
    }

    // Computer audio follows the default output mid-take (headphones plugged in), and an output
    // that appears after a take started without one is picked up; nothing happens when idle.
    void computerAudioFollowsTheDefaultOutput()
    {
        const QString headphones = QStringLiteral("headphones.monitor");
        startTake(QStringLiteral("S8"));
        backend->changeOutput(headphones);
        QTRY_COMPARE(backend->openChannels(headphones), 2);
        QCOMPARE(backend->openChannels(kMonitor), 0);
        QVERIFY(home.log().contains("computer audio: following the output to headphones.monitor"));
        backend->changeOutput(headphones); // the same output again: nothing to do
        QTest::qWait(50);
        QCOMPARE(home.log().count("following the output"), 1);
        stopTake();

        backend->changeOutput(std::nullopt);
        startTake(QStringLiteral("S9"));
        QCOMPARE(rec->lastError().value_or(QString()), QStringLiteral("No audio output found"));
        backend->changeOutput(kMonitor);
        QTRY_COMPARE(backend->openChannels(kMonitor), 2);
        QVERIFY(!rec->lastError());
        stopTake();

        backend->changeOutput(headphones);
        QTest::qWait(50);
        QCOMPARE(backend->openChannels(headphones), 0);
    }

    // A take stopped while the time lines are still being placed keeps that audio, and the end of
    // every take reaches the file whole.
    void shortTakeKeepsEverything()
    {
        startTake(QStringLiteral("S7"));
        const int64_t t = clock->nowNs();
        for (int b = 0; b < 40; ++b) { // 0.4 s with stamps too unsteady to place the line early
            const int64_t at = t + b * 10000000LL + (b % 2 ? 3000000 : -3000000);
            clock->set(t + (b + 1) * 10000000LL);
            backend->deliver(QStringLiteral("usbmic"), toneBlock(480, 1, int64_t(b) * 480), at);
            backend->deliver(kMonitor, toneBlock(480, 2, int64_t(b) * 480), at);
            rec->audioQueue().sync([] {});
        }
        stopTake();
        QCOMPARE(files(QStringLiteral("S7")).size(), 2);
        if (MediaProbe::available()) {
            for (const auto &[path, session] : done) {
                const double seconds = MediaProbe::decode(path).size() / 48000.0;
                QVERIFY2(std::fabs(seconds - 0.4) < 0.01, qPrintable(path + " " + QString::number(seconds)));
            }
        }
    }

    // Choosing another microphone switches device without a new take; with the built-in
    // microphone as the main one there is no room microphone.
    void restartMicSwitchesDevice()
    {
        startTake(std::nullopt);
        QCOMPARE(rec->micUID(), QStringLiteral("usbmic"));
        Config::setMicUID(QStringLiteral("laptop"));
        rec->restartMic();
        QCOMPARE(rec->micUID(), QStringLiteral("laptop"));
        QCOMPARE(rec->roomName(), QString());
        QVERIFY(home.log().contains("computer mic: none"));
        QCOMPARE(backend->openChannels(QStringLiteral("usbmic")), 0);
        QCOMPARE(backend->openChannels(QStringLiteral("laptop")), 1);
        stopTake();
    }
};

QTEST_GUILESS_MAIN(RecorderTest)
#include "tst_recorder.moc"
