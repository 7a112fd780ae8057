#include "AudioPath.h"
#include "DriftCorrector.h"
#include "MediaProbe.h"
#include "OrphanRecovery.h"
#include "RecorderFixture.h"
#include "SegmentWriter.h"
#include "SessionFolder.h"
#include "TestHome.h"
#include "TestLiterals.h"
#include "Uploader.h"

#include <QProcess>
#include <QScopeGuard>

// The recorder on a synthetic sound system and a clock the test moves: takes and their files,
// the start sync's time-out, source failures and their texts, live audio, levels, a full queue.
class RecorderTest : public QObject
{
    Q_OBJECT
    TestHome home;
    std::unique_ptr<RecorderFixture> f;
    const QString usb = QStringLiteral("usbmic"), laptop = QStringLiteral("laptop"), mon = RecorderFixture::kMonitor;

    double seconds(const QString &path) { return MediaProbe::decode(path).size() / 48000.0; }

private Q_SLOTS:
    void init()
    {
        home.wipe();
        f = std::make_unique<RecorderFixture>(0, true);
    }
    void cleanup() { f.reset(); }

    // A take records mic, sys and the built-in room microphone from one common start (when sys
    // arrived) into "_final" M4A files reported with the session; starting again while running
    // finishes the take first, and the new one numbers from 00000 and, stopped before its time
    // lines are placed, keeps all its audio.
    void takeWritesEveryTrack()
    {
        QVERIFY(f->start(QStringLiteral("S1")));
        QVERIFY(!f->rec->lastError() && f->rec->isRecording());
        QCOMPARE(f->rec->micName() + QLatin1String(", ") + f->rec->roomName(), QStringLiteral("USB Mic, Laptop Mic"));
        const int64_t t = f->clock->nowNs();
        f->feed({usb, laptop}, t, 0.3); // sys not yet there
        f->feed({usb, laptop, mon}, t + 300000000, 1.5);
        const QStringList first = {f->finalName(QStringLiteral("mic")), f->finalName(QStringLiteral("room")), f->finalName(QStringLiteral("sys"))};
        QVERIFY(f->start(QStringLiteral("S2")));
        QCOMPARE(f->doneNames(), first);
        for (const auto &[path, session] : f->done) {
            QCOMPARE(session, QStringLiteral("S1"));
            QVERIFY2(std::fabs(seconds(path) - 1.5) < 0.03, qPrintable(path));
        }
        f->feed({usb, mon}, f->clock->nowNs(), 0.4, 4000000); // too unsteady to place the time line early
        QVERIFY(f->stop());
        QVERIFY(!f->rec->running() && !first.contains(f->finalName(QStringLiteral("mic"))));
        QCOMPARE(f->doneNames(QStringLiteral("mic")), QStringList({first[0], f->finalName(QStringLiteral("mic"))}));
        for (const auto &[path, session] : f->done.mid(3)) // a take stopped while its time lines are placed keeps that audio whole
            QVERIFY2(session == QStringLiteral("S2") && std::fabs(seconds(path) - 0.4) < 0.01, qPrintable(path));
        for (const char *line : {"capture started session=S1", "mic: USB Mic", "computer mic: Laptop Mic",
                                 "sync: all tracks locked to one start", "capture stopped"})
            QVERIFY2(home.log().contains(QLatin1String(line)), line);
    }

    // Without a session: levels and live audio (only while listening), no files.
    void soundTestWritesNothing()
    {
        f->rec->listening = true;
        QList<QPair<quint8, int>> live;
        f->rec->onLiveAudio = [&](quint8 source, const QByteArray &pcm) { live.append({source, int(pcm.size())}); };
        QVERIFY(f->start(std::nullopt));
        QVERIFY(f->rec->running() && !f->rec->isRecording());
        f->feed({usb, mon}, f->clock->nowNs(), 0.5);
        const Recorder::Levels levels = f->rec->takeLevels();
        QVERIFY(levels.mic > 0.15f && levels.sys > 0.15f);
        QCOMPARE(f->rec->takeLevels().mic, 0.0f);
        QCOMPARE(live.size(), 50); // 10 ms blocks sent in twos
        QCOMPARE(live.first(), qMakePair(quint8(0), AudioPath::kLiveChunkBytes));
        f->rec->listening = false;
        f->feed({usb}, f->clock->nowNs(), 0.1);
        QCOMPARE(live.size(), 50);
        // Another microphone is taken without a new take; the built-in one as main leaves no room mic.
        f->rec->setMicChoice(laptop);
        f->rec->restartMic();
        QCOMPARE(f->rec->roomName(), QString());
        QVERIFY(f->audio->openChannels(usb) == 0 && f->audio->openChannels(laptop) == 1);
        QVERIFY(f->stop());
        QVERIFY(QDir(DataFolder::dir(QStringLiteral("writing"))).isEmpty());
    }

    // Computer audio that never arrives: the sync starts without it 2 s after the first sample,
    // at the microphone's first time, so the file begins with silence and the audio keeps its place.
    void missingOutputTimesOut()
    {
        f->audio->monitor.reset();
        QVERIFY(f->start(QStringLiteral("S2")));
        QCOMPARE(f->rec->lastError().value_or(QString()), QStringLiteral("No audio output found"));
        f->feed({usb}, f->clock->nowNs(), 2.5 + DriftCorrector::kHoldSeconds); // output waits kHoldSeconds
        QVERIFY(f->stop());
        QVERIFY(home.log().contains(QStringLiteral("sync: started without sys (timed out)")));
        QCOMPARE(f->done.size(), 1);
        const QVector<float> pcm = MediaProbe::decode(f->done[0].first);
        // The gate's wait starts when the first block comes in (it hears of it before the block
        // leaves the hold, kHoldSeconds later) and lasts 2.0 s.
        const double firstSound = MediaProbe::firstAbove(pcm, 0.05f) / 48000.0;
        QVERIFY(std::fabs(pcm.size() / 48000.0 - 2.5 - DriftCorrector::kHoldSeconds) < 0.03);
        QVERIFY2(std::fabs(firstSound - (2.0 - DriftCorrector::kHoldSeconds)) < 0.03, qPrintable(QString::number(firstSound)));
    }

    // Each refusal (a source that cannot open, the server's, no microphones) shows its text and
    // permission kind, and logs why; what can record still records.
    void refusals()
    {
        const struct { const char *refused, *error; int blocked, micChannels; const char *logged; } rows[] = {
            {"out.monitor", "Computer audio blocked — re-run setup on this computer", 2, 1, "computer audio error: refused"},
            {"server", "Microphone blocked — re-run setup on this computer", 1, 0, "computer audio error: the sound server refused this program"},
            {"no mics", "No microphone found", 0, 0, "computer mic: none"}, {"usbmic", "No microphone found", 0, 0, "mic error: USB Mic: refused"}};
        for (const auto &r : rows) {
            f = std::make_unique<RecorderFixture>(0, true);
            f->audio->refused = {QString::fromUtf8(r.refused)};
            if (qstrcmp(r.refused, "server") == 0)
                f->audio->accessAnswer = AudioBackend::Access::Refused;
            if (qstrcmp(r.refused, "no mics") == 0)
                f->audio->devices.clear();
            QVERIFY(f->start(QStringLiteral("S3")));
            QCOMPARE(f->rec->lastError().value_or(QString()), QString::fromUtf8(r.error));
            QVERIFY2(int(f->rec->blocked()) == r.blocked && f->audio->openChannels(usb) == r.micChannels && home.log().contains(QString::fromUtf8(r.logged)), r.refused);
            QVERIFY(f->stop());
        }
    }

    // Computer audio dies mid-take: "Computer audio stopped", one retry after 2 s reopens it; a
    // stop in between voids the retry. A sound server that stops answering is one error, logged
    // once; when it answers again the error clears and a stream that ended meanwhile is opened again.
    void sourcesFailAndComeBack()
    {
        QVERIFY(f->start(QStringLiteral("S6")));
        QVERIFY(f->audio->fail(mon, QStringLiteral("device vanished")));
        QTRY_COMPARE(f->rec->lastError().value_or(QString()), QStringLiteral("Computer audio stopped"));
        QVERIFY(home.log().contains(QStringLiteral("computer audio stopped: device vanished")));
        QVERIFY(f->audio->openChannels(mon) == 0 && f->scheduled.size() == 1);
        f->scheduled.takeFirst()();
        QCOMPARE(f->audio->openChannels(mon), 2);
        f->audio->setAnswering(false); // the backend's watcher hears of it
        QTRY_COMPARE(f->rec->lastError().value_or(QString()), QStringLiteral("Sound server not answering"));
        QVERIFY(f->audio->fail(usb, QStringLiteral("server gone")));
        f->audio->changeOutput(mon);
        QTRY_COMPARE(f->audio->openChannels(usb), 0);
        f->audio->setAnswering(true);
        QTRY_COMPARE(f->audio->openChannels(usb), 1);
        QVERIFY(!f->rec->lastError());
        QCOMPARE(home.log().count(QStringLiteral("Sound server not answering")), 1);
        QVERIFY(f->audio->fail(mon, QStringLiteral("again")));
        QTRY_COMPARE(f->scheduled.size(), 1);
        QVERIFY(f->stop());
        f->scheduled.takeFirst()();
        QCOMPARE(f->audio->openChannels(mon), 0);
    }

    // A stuck audio queue holds at most 22 s per source (more than the sound server keeps for a
    // stream); the rest is dropped, counted, and logged once when the take ends. The main
    // thread's level reading does not wait for the queue.
    void fullQueueDropsAndSays()
    {
        QVERIFY(f->start(QStringLiteral("S10")));
        std::mutex stuck;
        stuck.lock();
        f->rec->audioQueue().async([&stuck] { std::lock_guard hold(stuck); });
        const int64_t t = f->clock->nowNs();
        for (int b = 0; b < 2300; ++b)
            f->audio->deliver(usb, RecorderFixture::tone(1, b * 480), t + b * 10000000LL);
        f->rec->takeLevels(); // returns although q is stuck
        stuck.unlock();
        QCOMPARE(f->rec->audioPath().dropped(AudioPath::Mic), 100LL);
        QVERIFY(f->stop());
        QCOMPARE(home.log().count(QStringLiteral("audio queue full: dropped 100 blocks of mic")), 1);
    }

    // A disk that fills mid-take: the error shows and is logged once until it clears, what
    // reached the disk is queued at once; with space again the take goes on and the error clears.
    // Every file queued reads. Needs the right to mount a tmpfs (CI runs as root).
    void fullDiskShowsAndRecovers()
    {
        const QString writing = DataFolder::dir(QStringLiteral("writing"));
        const auto mount = [&](const char *o) { return QProcess::execute(QStringLiteral("mount"), strings({"-t", "tmpfs", "-o", o, "tmpfs"}) << writing) == 0; };
        if (!mount("size=300k"))
            QSKIP("no right to mount a tmpfs here");
        const auto unmount = qScopeGuard([&] { QProcess::execute(QStringLiteral("umount"), {QStringLiteral("-l"), writing}); }); // lazy: files may be open
        QVERIFY(f->start(QStringLiteral("D1")));
        f->feed({usb, mon}, f->clock->nowNs(), 20); // 24 kB/s of AAC: full after about 12 s
        QVERIFY(f->rec->lastError().value_or(QString()).contains(QStringLiteral("No space left on device — free some space on this computer")));
        QVERIFY(f->doneNames().size() >= 2);
        for (const QString &track : strings({"mic", "sys"}))
            QVERIFY(home.log().count(QLatin1String("writer error ") + track) <= 1 + home.log().count(QLatin1String("writer ") + track + QLatin1String(": writing again")));
        QVERIFY(mount("remount,size=20m"));
        f->feed({usb, mon}, f->clock->nowNs(), SegmentWriter::kSteadySeconds - 1); // written again, not yet steadily: still shown
        QVERIFY(f->rec->lastError().has_value());
        f->feed({usb, mon}, f->clock->nowNs(), 3);
        QVERIFY(!f->rec->lastError());
        QVERIFY(f->stop() && f->doneNames(QStringLiteral("mic")).last().contains(QStringLiteral("_final")));
        for (const auto &[path, session] : f->done)
            QVERIFY2(MediaProbe::number(MediaProbe::stream(path), "format_duration") > 0, qPrintable(path));
    }

    // A session longer than a file name may be records under a shortened, unique folder that
    // keeps the full text for recovery and the upload queue; no raw newline reaches the log. A
    // folder that cannot be made is an error in the status.
    void longSessionKeepsItsText()
    {
        const QString session = QStringLiteral("first\nline two ") + QString(300, QLatin1Char('s'));
        QVERIFY(f->start(session));
        f->feed({usb, mon}, f->clock->nowNs(), 1);
        QVERIFY(f->stop() && !f->rec->lastError() && f->done.size() == 2);
        QVERIFY(SessionFolder::name(session + QLatin1String("s")) != QFileInfo(QFileInfo(f->done[0].first).path()).fileName());
        const auto found = OrphanRecovery(DataFolder::dir(QStringLiteral("writing")), DataFolder::dir(QStringLiteral("unrecognized"))).run();
        QCOMPARE(found.value(0).session, session);
        QVERIFY(QFile::rename(found[0].path, SessionFolder::make(DataFolder::dir(QStringLiteral("pending")), session) + QLatin1String("/mic_1_00000.m4a")));
        QCOMPARE(Uploader::pendingFiles(DataFolder::dir(QStringLiteral("pending"))).value(0).session, session);
        QVERIFY(!home.log().contains(QStringLiteral("\nline two")) && home.log().contains(QStringLiteral("first\\x0aline two")));
        QVERIFY(QFile(DataFolder::dir(QStringLiteral("writing")) + QLatin1String("/blocked")).open(QIODevice::WriteOnly) && f->start(QStringLiteral("blocked")));
        f->feed({usb, mon}, f->clock->nowNs(), 0.5 + DriftCorrector::kHoldSeconds);
        QVERIFY(f->rec->lastError().value_or(QString()).startsWith(QStringLiteral("writer error")));
    }
};

QTEST_GUILESS_MAIN(RecorderTest)
#include "tst_recorder.moc"
