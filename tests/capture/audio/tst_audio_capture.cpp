#include "MediaProbe.h"
#include "PulseBackend.h"
#include "RecorderFixture.h"
#include "TestHome.h"
#include "TestLiterals.h"
#include "TestSoundServer.h"

#include <QProcess>
#include <QScopeGuard>

#include <csignal>

// Recording from a test sound server (the PulseAudio daemon, or PipeWire through its PulseAudio
// service): real devices, real streams, real files.
class AudioCaptureTest : public QObject
{
    Q_OBJECT
    TestHome home;
    PulseBackend pulse;
    std::unique_ptr<RecorderFixture> f;

    static bool pactl(const QString &args) { return QProcess::execute(QStringLiteral("pactl"), args.split(QLatin1Char(' '))) == 0; }
    bool startTake()
    {
        f.reset(); // the backend has one watcher: the old recorder lets go of it first
        f = std::make_unique<RecorderFixture>(0, false, &pulse);
        f->rec->setMicChoice(QStringLiteral("brava_mic"));
        return f->start(QStringLiteral("s1")) && !f->rec->lastError();
    }
    bool playClick(const QString &sink) { return TestSoundServer::playClick(sink, home.root() + QLatin1String("/click.raw")); }
    bool bothHear(const Recorder::Levels &levels) { return levels.mic > 0.01f && levels.sys > 0.01f; }

private Q_SLOTS:
    void init()
    {
        if (!TestSoundServer::available())
            QSKIP("needs the PulseAudio daemon of scripts/test (BRAVA_TEST_PULSE=1)");
        home.wipe();
    }
    void cleanup() { f.reset(); }

    // With no server there is no answer; the test server lists its microphones (no monitors, no
    // virtual devices) with their descriptions, built-in and default flags, and names the
    // output's monitor. The snapshot follows the server's events and tells the watcher: a new
    // default output names its monitor. A stream on a monitor ends with its output (never moved
    // to a microphone); a stream that cannot start reports the way a dying one does.
    void devicesAndStreamsFollowTheServer()
    {
        {
            const auto restore = qScopeGuard([server = qgetenv("PULSE_SERVER")] { qputenv("PULSE_SERVER", server); });
            qputenv("PULSE_SERVER", "unix:/nonexistent/brava/native");
            PulseBackend absent;
            QVERIFY(absent.access() == AudioBackend::Access::Unknown && !absent.answering() && !absent.outputMonitor(nullptr));
        }
        QVERIFY(pulse.access() == AudioBackend::Access::Allowed && pulse.answering());
        QStringList seen;
        for (const Device &d : pulse.inputs())
            seen.append(QStringLiteral("%1 %2 %3%4").arg(d.uid, d.name).arg(d.builtIn).arg(d.isDefault));
        seen.sort();
        QCOMPARE(seen, strings({"brava_mic BravaBuiltinMic 11", "brava_usbmic BravaUSBMic 00"}));
        QCOMPARE(pulse.outputMonitor(nullptr).value_or(QString()), QStringLiteral("brava_out.monitor"));
        std::atomic<int> changes{0}, ended{0};
        std::atomic<bool> flowing{false};
        pulse.watch([&] { ++changes; });
        const auto restore = qScopeGuard([this] { pulse.watch(nullptr), pactl(QStringLiteral("set-default-sink brava_out")); });
        QProcess load;
        load.start(QStringLiteral("pactl"), strings({"load-module", "module-null-sink", "sink_name=brava_headset"}));
        QVERIFY(load.waitForFinished(5000) && load.exitCode() == 0 && pactl(QStringLiteral("set-default-sink brava_headset")));
        QTRY_VERIFY(pulse.outputMonitor(nullptr) == QStringLiteral("brava_headset.monitor") && changes > 0);
        const AudioBackend::Handlers handlers{[&](AudioBuffer &&) { flowing = true; }, [&](const QString &) { ++ended; }};
        const auto headset = pulse.open(QStringLiteral("brava_headset.monitor"), 48000, 2, handlers, nullptr);
        QTRY_VERIFY(headset && flowing);
        QVERIFY(pactl(QLatin1String("unload-module ") + QString::fromUtf8(load.readAllStandardOutput()).trimmed()));
        QTRY_COMPARE(ended.load(), 1);
        QTRY_VERIFY(pulse.outputMonitor(nullptr) != QStringLiteral("brava_headset.monitor"));
        const auto missing = pulse.open(QStringLiteral("brava_nothing"), 48000, 1, handlers, nullptr);
        QTRY_VERIFY(missing && ended == 2);
    }

    // One click played into the output reaches microphone and computer audio at the same instant;
    // in the two files it sits at the same time within 1 ms, take after take, and the levels rise.
    // Every take is run (BRAVA_TEST_CLICK_TAKES=100 makes it a soak, see scripts/soak-audio-click)
    // and the failure lists each take's offset with the steps each track settled and why: a
    // silence filled where nothing was lost moves that track later by its size (mic + fill = an
    // offset of +fill), a loss left unfilled moves it earlier with no fill logged.
    void clickLinesUpAcrossTracks()
    {
        const int takes = qEnvironmentVariableIsSet("BRAVA_TEST_CLICK_TAKES") ? qEnvironmentVariableIntValue("BRAVA_TEST_CLICK_TAKES") : 3;
        QStringList offsets, failed;
        for (int take = 1; take <= takes; ++take) {
            const qsizetype logFrom = home.log().size();
            if (const QString burst = qEnvironmentVariable("BRAVA_TEST_CLICK_BEFORE_TAKE"); !burst.isEmpty())
                QProcess::startDetached(QStringLiteral("sh"), {QStringLiteral("-c"), burst}); // load of the soak
            QVERIFY(startTake());
            // Other clients come and go meanwhile (a server may lose a quantum of a stream then).
            QTRY_VERIFY_WITH_TIMEOUT(playClick(QStringLiteral("brava_feed")), 5000);
            QTest::qWait(1500); // a take of a few seconds before the click
            QVERIFY(playClick(QStringLiteral("brava_out")));
            const Recorder::Levels levels = f->rec->takeLevels();
            QVERIFY2(bothHear(levels), qPrintable(QStringLiteral("%1 %2").arg(levels.mic).arg(levels.sys)));
            QVERIFY(f->stop());
            const qsizetype ca = MediaProbe::firstAbove(MediaProbe::decode(f->path(QStringLiteral("s1"), f->finalName(QStringLiteral("mic")))), 0.25f);
            const qsizetype cb = MediaProbe::firstAbove(MediaProbe::decode(f->path(QStringLiteral("s1"), f->finalName(QStringLiteral("sys")))), 0.25f);
            const double offsetMs = double(ca - cb) / 48.0;
            const QString line = QStringLiteral("take %1: ").arg(take)
                + (ca > 0 && cb > 0 ? QStringLiteral("click offset mic - sys %1 ms").arg(offsetMs, 0, 'f', 3)
                                    : QStringLiteral("click missing (mic at %1, sys at %2)").arg(ca).arg(cb));
            // The microphone here is the output's monitor remapped: it hears each chunk the output
            // renders when it is rendered, the monitor stamps it when it is heard.
            QStringList steps = home.log().mid(logFrom).split(QLatin1Char('\n')).filter(QRegularExpression(QStringLiteral("^\\S+ (mic|sys): .*(filled|dropped)")));
            qInfo("%s, levels mic %.3f sys %.3f", qPrintable(line), levels.mic, levels.sys);
            for (QString &step : steps)
                qInfo("take %d: %s", take, qPrintable(step = step.section(QLatin1Char(' '), 1)));
            if (ca > 0 && cb > 0)
                offsets.append(QString::number(offsetMs, 'f', 3));
            if (ca <= 0 || cb <= 0 || std::fabs(offsetMs) > 1.0)
                failed.append(line + (steps.isEmpty() ? QStringLiteral(", no step filled or set aside") : QLatin1String(":\n  ") + steps.join(QStringLiteral("\n  "))));
        }
        qInfo("click offsets (ms): %s", qPrintable(offsets.join(QLatin1Char(' '))));
        QVERIFY2(failed.isEmpty(), qPrintable(QLatin1String("takes beyond 1 ms:\n") + failed.join(QLatin1Char('\n'))));
    }


    // This process does not run for 7 s in the middle of a take (a laptop swapping, a debugger):
    // the sound server keeps what it captured meanwhile, and all of it lands in both tracks where
    // it was captured, a tone of 10 s as 10 s of tone with no silence in it.
    void aPausedAgentKeepsItsAudio()
    {
        const int seconds = 10;
        QVector<float> tone(48000 * seconds);
        for (qsizetype i = 0; i < tone.size(); ++i)
            tone[i] = float(0.5 * std::sin(2 * M_PI * 440.0 * double(i) / 48000.0));
        QFile file(home.root() + QLatin1String("/tone.raw"));
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write(reinterpret_cast<const char *>(tone.constData()), tone.size() * 4) == tone.size() * 4);
        file.close();
        QVERIFY(startTake());
        QProcess play;
        play.start(QStringLiteral("paplay"), strings({"--raw", "--format=float32le", "--rate=48000", "--channels=1", "-d", "brava_out"}) << file.fileName());
        float heard = 0; // levels are reset as they are read
        QTRY_VERIFY((heard = std::max(heard, f->rec->takeLevels().sys)) > 0.1f);
        qint64 longestGap = 0;
        QElapsedTimer sinceTick;
        QTimer ticks;
        connect(&ticks, &QTimer::timeout, this, [&] { longestGap = std::max(longestGap, sinceTick.restart()); });
        ticks.start(100);
        sinceTick.start();
        QProcess::startDetached(QStringLiteral("sh"), {QStringLiteral("-c"), QStringLiteral("kill -STOP %1; sleep 7; kill -CONT %1").arg(::getpid())});
        QTRY_VERIFY_WITH_TIMEOUT(play.state() == QProcess::NotRunning, 30000);
        QVERIFY2(longestGap > 6000, qPrintable(QString::number(longestGap))); // it was stopped
        QVERIFY(f->stop());
        for (const char *track : {"mic", "sys"}) {
            const QVector<float> d = MediaProbe::decode(f->path(QStringLiteral("s1"), f->finalName(QString::fromLatin1(track))));
            const qsizetype first = MediaProbe::firstAbove(d, 0.25f);
            qsizetype last = d.size() - 1;
            while (last > first && std::fabs(d[last]) < 0.25f)
                --last;
            QStringList silent; // 20 ms windows of the tone's span without it
            for (qsizetype at = std::max<qsizetype>(first, 0); at + 960 <= last; at += 960) {
                float peak = 0;
                for (qsizetype i = at; i < at + 960; ++i)
                    peak = std::max(peak, std::fabs(d[i]));
                if (peak < 0.25f)
                    silent.append(QString::number(double(at) / 48000.0, 'f', 2));
            }
            const double span = double(last - first) / 48000.0;
            qInfo("%s: the tone lasts %.3f s, silent at %s", track, span, qPrintable(silent.join(QLatin1Char(' '))));
            QVERIFY2(first > 0 && std::fabs(span - seconds) < 0.05 && silent.isEmpty(), qPrintable(home.log()));
        }
    }

    // The sound server hangs (stopped) for 10 s in the middle of a take: the main thread keeps
    // its pace while it asks what the tray and the heartbeat ask and opens a stream, the hang is
    // noticed within seconds, and once the server resumes the error clears and audio flows again.
    void aHungServerNeverStallsTheMainThread()
    {
        const auto daemon = pid_t(qEnvironmentVariableIntValue("BRAVA_TEST_PULSE_PID")); // set with the server
        QVERIFY(daemon > 0);
        QVERIFY(startTake());
        qint64 longestGap = 0;
        QElapsedTimer sinceTick, hung;
        QTimer ticks;
        connect(&ticks, &QTimer::timeout, this, [&] {
            longestGap = std::max(longestGap, sinceTick.restart());
            (void)pulse.inputs(), (void)pulse.access(), (void)pulse.outputMonitor(nullptr), (void)f->rec->takeLevels();
        });
        ticks.start(50);
        sinceTick.start();
        const auto resume = qScopeGuard([daemon] { ::kill(daemon, SIGCONT); });
        QCOMPARE(::kill(daemon, SIGSTOP), 0);
        hung.start();
        QVERIFY(pulse.open(QStringLiteral("brava_mic"), 48000, 1, {}, nullptr)); // asked, not awaited; closed at once
        QTRY_VERIFY_WITH_TIMEOUT(!pulse.answering(), 3000);
        qInfo("the hang was noticed after %lld ms", hung.elapsed());
        QVERIFY(hung.elapsed() >= 1500); // a server slow to answer for a moment is not taken for a hung one
        QTRY_COMPARE_WITH_TIMEOUT(f->rec->lastError().value_or(QString()), QStringLiteral("Sound server not answering"), 3000);
        QTRY_VERIFY_WITH_TIMEOUT(hung.hasExpired(10000), 12000); // the hang lasts 10 s
        QCOMPARE(::kill(daemon, SIGCONT), 0);
        QTRY_VERIFY_WITH_TIMEOUT(pulse.answering() && !f->rec->lastError(), 10000);
        ticks.stop();
        qInfo("longest gap between ticks of the main thread: %lld ms", longestGap);
        QVERIFY2(longestGap < 300, qPrintable(QString::number(longestGap)));
        f->rec->takeLevels();
        QTRY_VERIFY_WITH_TIMEOUT(playClick(QStringLiteral("brava_out")) && f->rec->takeLevels().mic > 0.01f, 15000);
        QVERIFY(f->stop());
    }

    // The sound server dies (killed) and comes back on the same socket in the middle of a take:
    // every track records again, the error clears, and the log tells both.
    void audioComesBackAfterTheServerRestarts()
    {
        QVERIFY(startTake());
        QVERIFY(TestSoundServer::restart());
        QTRY_VERIFY_WITH_TIMEOUT(pulse.answering() && pulse.outputMonitor(nullptr) == QStringLiteral("brava_out.monitor"), 15000);
        f->rec->takeLevels();
        QTRY_VERIFY2_WITH_TIMEOUT(playClick(QStringLiteral("brava_out")) && bothHear(f->rec->takeLevels()), qPrintable(home.log()), 20000); // each try plays for a second
        QTRY_VERIFY_WITH_TIMEOUT(!f->rec->lastError(), 10000);
        QVERIFY(f->stop());
        // Either the server was seen gone and back, or its streams ended and opened again.
        const QString log = home.log();
        const bool seenAway = log.contains(QStringLiteral("Sound server not answering")) && log.contains(QStringLiteral("sound server answering again"));
        const bool reopened = log.indexOf(QStringLiteral("mic stopped")) < log.lastIndexOf(QStringLiteral("mic: BravaBuiltinMic"))
            && log.indexOf(QStringLiteral("computer audio stopped")) < log.lastIndexOf(QStringLiteral("computer audio: following the output to brava_out.monitor"));
        QVERIFY2(log.contains(QStringLiteral("mic stopped")) && (seenAway || reopened), qPrintable(log));
    }
};

int main(int argc, char **argv)
{
    TestSoundServer::select(); // before any client connects
    QCoreApplication app(argc, argv);
    AudioCaptureTest test;
    return QTest::qExec(&test, argc, argv);
}
#include "tst_audio_capture.moc"
