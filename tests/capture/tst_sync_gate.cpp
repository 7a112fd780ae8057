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
    void locks_data()
    {
        QTest::addColumn<bool>("expectCam");
        QTest::addColumn<QStringList>("tracks"); // first samples in this order, 10 ms of clock apart
        QTest::addColumn<QList<int>>("times");   // their times (ms)
        QTest::addColumn<int>("waitMs");         // clock moved after them, then "mic" at 5000 ms
        QTest::addColumn<int>("t0");             // -1: not locked
        QTest::newRow("latest start") << false << strings({"room", "mic", "sys"}) << QList<int>{50, 100, 250} << 0 << 250;
        QTest::newRow("camera waited for") << true << strings({"mic", "sys"}) << QList<int>{100, 250} << 1900 << -1;
        QTest::newRow("camera last") << true << strings({"mic", "cam", "sys"}) << QList<int>{100, 400, 250} << 0 << 400;
        QTest::newRow("2 s is still waiting") << false << strings({"mic"}) << QList<int>{100} << 1990 << -1;
        QTest::newRow("sys given up") << false << strings({"mic"}) << QList<int>{100} << 1991 << 100;
        QTest::newRow("cam given up") << true << strings({"sys", "mic"}) << QList<int>{300, 100} << 1991 << 300;
    }
    void locks()
    {
        QFETCH(bool, expectCam);
        QFETCH(QStringList, tracks);
        QFETCH(QList<int>, times);
        QFETCH(int, waitMs);
        QFETCH(int, t0);
        ManualClock clock;
        SyncGate gate(clock);
        int locks = 0;
        gate.onLock = [&](MediaTime) { ++locks; };
        gate.reset(expectCam);
        for (int i = 0; i < tracks.size(); ++i) {
            gate.pass(tracks[i], ms(times[i]));
            clock.advance(10000000);
        }
        clock.advance(int64_t(waitMs) * 1000000);
        QCOMPARE(gate.pass(QStringLiteral("mic"), ms(5000)), t0 >= 0);
        QCOMPARE(gate.t0().value_or(ms(-1)), ms(t0));
        QCOMPARE(locks, t0 >= 0 ? 1 : 0);
        if (t0 >= 0)
            QVERIFY(!gate.pass(QStringLiteral("sys"), ms(t0 - 1)) && gate.pass(QStringLiteral("room"), ms(t0)) && locks == 1);
    }
};

QTEST_GUILESS_MAIN(SyncGateTest)
#include "tst_sync_gate.moc"
