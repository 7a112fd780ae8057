#include "SyntheticCameraBackend.h"
#include "Clock.h"
#include "AudioSignal.h"
#include "Config.h"
#include "MediaProbe.h"
#include "Permissions.h"
#include "PulseBackend.h"
#include "PulseFixture.h"
#include "Recorder.h"
#include "TestHome.h"

#include <QDir>
#include <QProcess>
#include <QtTest>

#include <cmath>

namespace {
// 0.5 s of silence, one 1 kHz cycle at 0.9 (reaches 0.3 three samples in), 0.5 s of silence.
QVector<float> clickSound()
{
    QVector<float> s(48000, 0.0f);
    for (int i = 0; i < 48; ++i)
        s[24000 + i] = 0.9f * float(std::sin(2 * M_PI * i / 48.0));
    return s;
}

} // namespace

// Recording from the test PulseAudio daemon: real devices, real streams, real files.
class AudioCaptureTest : public QObject
{
    Q_OBJECT
    TestHome home;
    PulseBackend pulse;
    SyntheticCameraBackend noCameras{SyntheticCameraBackend::Setup{}};

private slots:
    void init()
    {
        if (!PulseFixture::available())
            QSKIP("needs the PulseAudio daemon of scripts/test (BRAVA_TEST_PULSE=1)");
        home.wipe();
    }

    // Permissions follow the sound server: no server answering is no answer; the test server
    // accepts this program and lets its output's monitor be opened.
    void permissionsFollowTheServer()
    {
        const QByteArray server = qgetenv("PULSE_SERVER");
        qputenv("PULSE_SERVER", "unix:/nonexistent/brava/native");
        {
            PulseBackend absent;
            const Permissions none(absent);
            QCOMPARE(none.microphone(), Permissions::Status::NotDetermined);
            QCOMPARE(none.computerAudio(), Permissions::Status::NotDetermined);
        }
        qputenv("PULSE_SERVER", server);
        const Permissions permissions(pulse);
        QCOMPARE(permissions.microphone(), Permissions::Status::Authorized);
        QCOMPARE(permissions.computerAudio(), Permissions::Status::Authorized);
    }

    // Microphones are the non-monitor sources with their descriptions; the built-in flag comes
    // from the form factor or bus; the computer audio is the default output's monitor.
    void devicesAreListedAndChosen()
    {
        QCOMPARE(pulse.access(), AudioBackend::Access::Allowed);
        const QList<Device> mics = pulse.inputs();
        QStringList uids;
        for (const Device &d : mics)
            uids.append(d.uid);
        QVERIFY2(uids.contains("brava_mic") && uids.contains("brava_usbmic"), qPrintable(uids.join(',')));
        for (const Device &d : mics) {
            QVERIFY(!d.uid.endsWith(QLatin1String(".monitor")));
            if (d.uid == QLatin1String("brava_mic")) {
                QCOMPARE(d.name, QStringLiteral("BravaBuiltinMic"));
                QVERIFY(d.builtIn);
                QVERIFY(d.isDefault);
            }
            if (d.uid == QLatin1String("brava_usbmic"))
                QVERIFY(!d.builtIn);
        }
        QString reason;
        QCOMPARE(pulse.outputMonitor(&reason).value_or(QString()), QStringLiteral("brava_out.monitor"));

        Config::setMicUID(QString());
        Recorder rec(pulse, noCameras, Clock::monotonic());
        QCOMPARE(rec.pickMic()->uid, QStringLiteral("brava_usbmic")); // attached wins
        Config::setMicUID(QStringLiteral("gone"));
        QCOMPARE(rec.pickMic()->uid, QStringLiteral("brava_mic")); // unplugged: the default
    }

    // One click played into the output reaches microphone and computer audio at the same instant;
    // in the two files it sits at the same time within 1 ms. Levels rise, the room microphone
    // (the built-in one, since the USB one is in use) is recorded too, and the files carry AAC
    // at the agreed rates with durations matching the take.
    void clickLinesUpAcrossTracks()
    {
        if (!MediaProbe::available())
            QSKIP("ffprobe/ffmpeg not installed");
        Config::setMicUID(QStringLiteral("brava_mic"));
        Recorder rec(pulse, noCameras, Clock::monotonic());
        QStringList done;
        rec.onSegmentDone = [&](const QString &path, const QString &session) {
            QCOMPARE(session, QStringLiteral("align"));
            done.append(path);
        };
        bool started = false;
        rec.start(QStringLiteral("align"), [&] { started = true; });
        QTRY_VERIFY(started);
        QVERIFY2(!rec.lastError(), qPrintable(rec.lastError().value_or(QString())));
        QCOMPARE(rec.micName(), QStringLiteral("BravaBuiltinMic"));
        QTest::qWait(2500);
        const QString wav = home.root() + QStringLiteral("/click.wav");
        QVERIFY(PulseFixture::writeWav(wav, clickSound()));
        QVERIFY(PulseFixture::play(QStringLiteral("brava_out"), wav));
        const Recorder::Levels levels = rec.takeLevels();
        QVERIFY2(levels.mic > 0.01f && levels.sys > 0.01f, qPrintable(QStringLiteral("%1 %2").arg(levels.mic).arg(levels.sys)));
        QTest::qWait(300);
        bool stopped = false;
        rec.stop([&] { stopped = true; });
        QTRY_VERIFY(stopped);

        QString mic, sys;
        for (const QString &p : done) {
            if (p.contains(QLatin1String("/mic_")))
                mic = p;
            if (p.contains(QLatin1String("/sys_")))
                sys = p;
        }
        QVERIFY2(mic.endsWith(QStringLiteral("_00000_final.m4a")) && sys.endsWith(QStringLiteral("_00000_final.m4a")),
                 qPrintable(done.join(',')));
        QVERIFY(mic.contains(QStringLiteral("/mic_%1_").arg(rec.currentTake())));

        const QJsonObject m = MediaProbe::stream(mic), s = MediaProbe::stream(sys);
        QCOMPARE(m.value("codec_name").toString(), QStringLiteral("aac"));
        QCOMPARE(m.value("sample_rate").toString(), QStringLiteral("48000"));
        QCOMPARE(m.value("channels").toInt(), 1);
        QCOMPARE(s.value("channels").toInt(), 2);
        QCOMPARE(s.value("sample_rate").toString(), QStringLiteral("48000"));

        const QVector<float> a = MediaProbe::decode(mic), b = MediaProbe::decode(sys);
        const qsizetype ca = MediaProbe::firstAbove(a, 0.25f), cb = MediaProbe::firstAbove(b, 0.25f);
        QVERIFY2(ca > 0 && cb > 0, qPrintable(QStringLiteral("%1 %2").arg(ca).arg(cb)));
        const double offsetMs = double(ca - cb) / 48.0;
        qInfo("click offset mic - sys: %.3f ms (mic at %lld, sys at %lld)", offsetMs, qlonglong(ca), qlonglong(cb));
        // The microphone here is the output's monitor remapped: it hears each chunk the output
        // renders (2 ms here) when it is rendered, the monitor stamps it when it is heard.
        // Measured 0.2 to 0.5 ms, also with both cores busy.
        QVERIFY2(std::fabs(offsetMs) <= 1.0, qPrintable(QString::number(offsetMs)));
        // Both tracks start at the common start and cover the take: about 2.5 + 1.0 + 0.3 s.
        const double durA = a.size() / 48000.0, durB = b.size() / 48000.0;
        QVERIFY2(std::fabs(durA - durB) < 0.1 && durA > 3.4 && durA < 5.0, qPrintable(QStringLiteral("%1 %2").arg(durA).arg(durB)));
    }

    // A new default output mid-take (headphones plugged in): computer audio follows it, and what
    // plays on the new output is recorded.
    void computerAudioFollowsTheDefaultOutput()
    {
        if (!MediaProbe::available())
            QSKIP("ffprobe/ffmpeg not installed");
        Config::setMicUID(QStringLiteral("brava_mic"));
        Recorder rec(pulse, noCameras, Clock::monotonic());
        QString sys;
        rec.onSegmentDone = [&](const QString &path, const QString &) {
            if (path.contains(QLatin1String("/sys_")))
                sys = path;
        };
        bool started = false;
        rec.start(QStringLiteral("follow"), [&] { started = true; });
        QTRY_VERIFY(started);
        QVERIFY(setDefaultSink(QStringLiteral("brava_feed")));
        QTRY_VERIFY(home.log().contains(QLatin1String("computer audio: following the output to brava_feed.monitor")));
        const QString wav = home.root() + QStringLiteral("/click.wav");
        QVERIFY(PulseFixture::writeWav(wav, clickSound()));
        QVERIFY(PulseFixture::play(QStringLiteral("brava_feed"), wav));
        bool stopped = false;
        rec.stop([&] { stopped = true; });
        QTRY_VERIFY(stopped);
        QVERIFY(setDefaultSink(QStringLiteral("brava_out")));
        QVERIFY2(sys.endsWith(QStringLiteral("_final.m4a")), qPrintable(sys));
        QVERIFY(MediaProbe::firstAbove(MediaProbe::decode(sys), 0.25f) > 0);
    }

    // The output in use goes away (headphones unplugged): computer audio comes back on the output
    // that is the default then, never on a microphone the server might have moved it to.
    void computerAudioSurvivesItsOutputGoingAway()
    {
        if (!MediaProbe::available())
            QSKIP("ffprobe/ffmpeg not installed");
        QProcess load;
        load.start(QStringLiteral("pactl"), {QStringLiteral("load-module"), QStringLiteral("module-null-sink"),
                                             QStringLiteral("sink_name=brava_headset"), QStringLiteral("rate=48000")});
        QVERIFY(load.waitForFinished(5000) && load.exitCode() == 0);
        const QString module = QString::fromUtf8(load.readAllStandardOutput()).trimmed();
        QVERIFY(setDefaultSink(QStringLiteral("brava_headset")));
        Config::setMicUID(QStringLiteral("brava_mic"));
        Recorder rec(pulse, noCameras, Clock::monotonic());
        QString sys;
        rec.onSegmentDone = [&](const QString &path, const QString &) {
            if (path.contains(QLatin1String("/sys_")))
                sys = path;
        };
        bool started = false;
        rec.start(QStringLiteral("unplug"), [&] { started = true; });
        QTRY_VERIFY(started);
        QVERIFY(QProcess::execute(QStringLiteral("pactl"), {QStringLiteral("unload-module"), module}) == 0);
        QVERIFY(setDefaultSink(QStringLiteral("brava_out")));
        QTRY_VERIFY_WITH_TIMEOUT(home.log().contains(QLatin1String("following the output to brava_out.monitor"))
                                     || home.log().count(QLatin1String("computer audio stopped")) == 1,
                                 5000);
        QTest::qWait(2500); // past the one retry
        const QString wav = home.root() + QStringLiteral("/click.wav");
        QVERIFY(PulseFixture::writeWav(wav, clickSound()));
        QVERIFY(PulseFixture::play(QStringLiteral("brava_out"), wav));
        bool stopped = false;
        rec.stop([&] { stopped = true; });
        QTRY_VERIFY(stopped);
        QVERIFY2(!sys.isEmpty(), qPrintable(home.log()));
        QVERIFY2(MediaProbe::firstAbove(MediaProbe::decode(sys), 0.25f) > 0, qPrintable(home.log()));
    }

    void cleanupTestCase()
    {
        if (PulseFixture::available())
            setDefaultSink(QStringLiteral("brava_out"));
    }

private:
    static bool setDefaultSink(const QString &sink)
    {
        return QProcess::execute(QStringLiteral("pactl"), {QStringLiteral("set-default-sink"), sink}) == 0;
    }
};

QTEST_GUILESS_MAIN(AudioCaptureTest)
#include "tst_audio_capture.moc"
