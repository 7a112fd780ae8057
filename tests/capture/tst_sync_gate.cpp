#include "BravaLog.h"
#include "ManualClock.h"
#include "SerialQueue.h"
#include "SyncGate.h"
#include "TestHome.h"

#include <QtTest>

#include <atomic>
#include <vector>

namespace {
MediaTime at(int64_t ms) { return MediaTime::fromNanoseconds(ms * 1000000); }
constexpr int64_t kMs = 1000000;
} // namespace

class SyncGateTest : public QObject
{
    Q_OBJECT
    TestHome home;

private slots:
    void init() { home.wipe(); }

    // Microphone, computer audio and camera within 2 s: T0 is the latest first time, every sample
    // before the lock is dropped, the writers get T0 and the log says so.
    void allTracksLockToTheLatestStart()
    {
        ManualClock clock;
        SyncGate gate(clock);
        std::vector<MediaTime> locks;
        gate.onLock = [&](MediaTime t0) { locks.push_back(t0); };
        gate.reset(true);
        QVERIFY(!gate.pass("mic", at(1000)));
        clock.advance(300 * kMs);
        QVERIFY(!gate.pass("sys", at(1250)));
        QVERIFY(!gate.pass("mic", at(900))); // a later sample never replaces the first
        QCOMPARE(*gate.seen("mic"), at(1000));
        QVERIFY(!gate.pass("room", at(5000)));
        clock.advance(500 * kMs);
        QVERIFY(gate.pass("cam", at(1400))); // locks; the camera's own first time is T0
        QCOMPARE(*gate.t0(), at(1400));
        QCOMPARE(locks.size(), size_t(1));
        QCOMPARE(locks[0], at(1400));
        QVERIFY(home.log().contains("sync: all tracks locked to one start"));
        // After the lock: equal to T0 passes, one tick earlier does not.
        QVERIFY(gate.pass("mic", at(1400)));
        QVERIFY(!gate.pass("mic", MediaTime::make(1399999999, 1000000000)));
        QVERIFY(gate.pass("room", at(1401)));
    }

    // Computer audio never comes: samples are dropped up to and including 2.0 s after the first
    // sample, then the gate locks without it.
    void missingTrackTimesOutAfterTwoSeconds()
    {
        ManualClock clock;
        SyncGate gate(clock);
        gate.reset(false);
        QVERIFY(!gate.pass("mic", at(100)));
        clock.advance(2000 * kMs); // exactly 2.0 s: still waiting
        QVERIFY(!gate.pass("mic", at(2100)));
        QVERIFY(!gate.t0());
        clock.advance(1);
        QVERIFY(gate.pass("mic", at(2101)));
        QCOMPARE(*gate.t0(), at(100));
        QVERIFY(home.log().contains("sync: started without sys (timed out)"));
    }

    // A camera that is not expected does not delay the start and is not named; an expected one
    // that never comes is named after the audio.
    void cameraExpectation()
    {
        ManualClock clock;
        SyncGate gate(clock);
        gate.reset(false);
        QVERIFY(!gate.pass("mic", at(10)));
        QVERIFY(gate.pass("sys", at(20)));
        QCOMPARE(*gate.t0(), at(20));
        QVERIFY(home.log().contains("sync: all tracks locked to one start"));

        gate.reset(true);
        QVERIFY(!gate.t0());
        QVERIFY(!gate.pass("room", at(30)));
        clock.advance(2001 * kMs);
        QVERIFY(!gate.pass("room", at(40))); // locks with nothing but room: T0 is invalid
        QVERIFY(gate.t0().has_value() && !gate.t0()->isValid());
        QVERIFY(!gate.pass("room", at(50)));
        QVERIFY(!gate.pass("mic", at(60)));
        QVERIFY(home.log().contains("sync: started without mic, sys, cam (timed out)"));
    }

    // Equal first times keep the first in the order mic, sys, cam.
    void tiesKeepTheFirstName()
    {
        ManualClock clock;
        SyncGate gate(clock);
        gate.reset(false);
        gate.pass("sys", MediaTime::make(3, 1));
        QVERIFY(gate.pass("mic", MediaTime::make(3000, 1000)));
        QCOMPARE(gate.t0()->timescale, 1000);
    }

    // Both capture queues at once: exactly one lock, and every later sample is judged against it.
    void concurrentQueuesLockOnce()
    {
        ManualClock clock;
        SyncGate gate(clock);
        std::atomic<int> locks{0};
        gate.onLock = [&](MediaTime) { ++locks; };
        gate.reset(true);
        SerialQueue audio(QStringLiteral("test.audio")), video(QStringLiteral("test.video"));
        std::vector<std::pair<int, bool>> a, v; // (ms, passed), each touched by one queue only
        for (int i = 0; i < 500; ++i) {
            audio.async([&, i] { a.emplace_back(1000 + i, gate.pass(i % 2 ? "mic" : "sys", at(1000 + i))); });
            video.async([&, i] { v.emplace_back(1000 + i, gate.pass("cam", at(1000 + i))); });
        }
        audio.sync([] {});
        video.sync([] {});
        QCOMPARE(locks.load(), 1);
        const MediaTime t0 = *gate.t0();
        int passed = 0;
        for (const auto &[ms, ok] : a) {
            QVERIFY(!ok || at(ms) >= t0);
            passed += ok;
        }
        for (const auto &[ms, ok] : v) {
            QVERIFY(!ok || at(ms) >= t0);
            passed += ok;
        }
        QVERIFY(passed > 0);
    }

    // The serial executor: jobs run in order on one thread, sync waits, sync from inside the
    // queue runs inline, and destruction drains what was queued.
    void serialQueueRunsInOrder()
    {
        std::vector<int> seen;
        {
            SerialQueue q(QStringLiteral("test.serial"));
            QVERIFY(!q.isCurrent());
            for (int i = 0; i < 100; ++i)
                q.async([&, i] { seen.push_back(i); });
            bool inside = false;
            q.sync([&] {
                inside = q.isCurrent();
                q.sync([&] { seen.push_back(100); }); // no dead-lock
            });
            QVERIFY(inside);
            QCOMPARE(seen.size(), size_t(101));
            for (int i = 0; i < 50; ++i)
                q.async([&, i] { seen.push_back(101 + i); });
        }
        QCOMPARE(seen.size(), size_t(151));
        for (int i = 0; i < 151; ++i)
            QCOMPARE(seen[i], i);
    }
};

QTEST_GUILESS_MAIN(SyncGateTest)
#include "tst_sync_gate.moc"
