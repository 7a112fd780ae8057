#include "ManualClock.h"
#include "SyncGate.h"
#include "TestHome.h"
#include "TestLiterals.h"

#include <QtTest>

namespace {
MediaTime ms(int64_t v) { return MediaTime::fromNanoseconds(v * 1000000); }
} // namespace

// The start sync on a clock the test moves: the latest first start wins, missing tracks are
// given up 2 s after the first sample, "room" is never waited for.
class SyncGateTest : public QObject
{
    Q_OBJECT
    TestHome home; // the gate's log lines go to a throw-away home

private Q_SLOTS:
    void locks()
    {
        // First samples of `tracks` in this order, 10 ms of clock apart, at `times` (ms); the clock
        // moved `waitMs` after them, then "mic" at 5000 ms: the start, -1 when not locked.
        const struct { bool expectCam; QStringList tracks; QList<int> times; int waitMs, t0; } rows[] = {
            {false, strings({"room", "mic", "sys"}), {50, 100, 250}, 0, 250}, // the latest start
            {true, strings({"mic", "sys"}), {100, 250}, 1900, -1},            // the camera waited for
            {true, strings({"mic", "cam", "sys"}), {100, 400, 250}, 0, 400},  // the camera last
            {false, strings({"mic"}), {100}, 1990, -1},                       // 2 s is still waiting
            {false, strings({"mic"}), {100}, 1991, 100},                      // sys given up
            {true, strings({"sys", "mic"}), {300, 100}, 1991, 300}};          // cam given up
        for (const auto &r : rows) {
            ManualClock clock;
            SyncGate gate(clock);
            int locks = 0;
            gate.onLock = [&](MediaTime) { ++locks; };
            gate.reset(r.expectCam);
            for (int i = 0; i < r.tracks.size(); ++i) {
                gate.pass(r.tracks[i], ms(r.times[i]));
                clock.advance(10000000);
            }
            clock.advance(int64_t(r.waitMs) * 1000000);
            QCOMPARE(gate.pass(QStringLiteral("mic"), ms(5000)), r.t0 >= 0);
            QCOMPARE(gate.t0().value_or(ms(-1)), ms(r.t0));
            QCOMPARE(locks, r.t0 >= 0 ? 1 : 0);
            if (r.t0 >= 0)
                QVERIFY(!gate.pass(QStringLiteral("sys"), ms(r.t0 - 1)) && gate.pass(QStringLiteral("room"), ms(r.t0)) && locks == 1);
        }
    }
};

QTEST_GUILESS_MAIN(SyncGateTest)
#include "tst_sync_gate.moc"
