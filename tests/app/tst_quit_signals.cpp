#include "QuitSignals.h"
#include "TestHome.h"

#include <QTest>
#include <QTimer>

#include <csignal>

// A stop, Ctrl-C and a hang-up end the event loop as the menu's Quit does, and the log says which.
class QuitSignalsTest : public QObject
{
    Q_OBJECT
    TestHome home;

private Q_SLOTS:
    void endsTheLoop_data()
    {
        QTest::addColumn<int>("number");
        QTest::addColumn<QString>("name");
        QTest::newRow("stop") << SIGTERM << QStringLiteral("SIGTERM");
        QTest::newRow("Ctrl-C") << SIGINT << QStringLiteral("SIGINT");
        QTest::newRow("hang-up") << SIGHUP << QStringLiteral("SIGHUP");
    }
    void endsTheLoop()
    {
        QFETCH(int, number);
        QFETCH(QString, name);
        home.wipe();
        const QuitSignals quitSignals;
        QTimer::singleShot(0, [number] { ::raise(number); });
        QTimer::singleShot(10000, [] { QCoreApplication::exit(1); }); // not heard: the loop runs on
        QCOMPARE(QCoreApplication::exec(), 0);
        QCOMPARE(home.log().count(QStringLiteral("stopped by ") + name + QStringLiteral(": quitting as from the menu")), 1);
    }
};

QTEST_GUILESS_MAIN(QuitSignalsTest)
#include "tst_quit_signals.moc"
