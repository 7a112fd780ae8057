#include "HttpStub.h"
#include "RoomDiscovery.h"

#include <QNetworkAccessManager>
#include <QProcess>
#include <QtTest>

// Discovery against the real Avahi daemon that scripts/test starts on loopback (BRAVA_TEST_AVAHI=1),
// with rooms announced by avahi-publish. Names carry this process's id so runs do not meet.
class DiscoveryAvahiTest : public QObject
{
    Q_OBJECT
    QProcess good, bad;

private Q_SLOTS:
    void announcedRoomsThatAnswerAppearAndLeave()
    {
        if (qEnvironmentVariableIntValue("BRAVA_TEST_AVAHI") != 1)
            QSKIP("no Avahi daemon for tests (run through scripts/test)");
        const QString name = QStringLiteral("Room %1").arg(QCoreApplication::applicationPid());
        HttpStub room, dead;
        QVERIFY(room.listen() && dead.listen());
        const quint16 deadPort = dead.port();
        dead.close();
        QNetworkAccessManager net;
        RoomDiscovery d(net);
        d.start();
        QVERIFY(d.searching());
        good.start(QStringLiteral("avahi-publish"), {QStringLiteral("-s"), name, QStringLiteral("_bravacontrol._tcp"), QString::number(room.port())});
        bad.start(QStringLiteral("avahi-publish"), {QStringLiteral("-s"), name + QStringLiteral(" dead"), QStringLiteral("_bravacontrol._tcp"), QString::number(deadPort)});
        QTRY_VERIFY_WITH_TIMEOUT(d.rooms().size() == 1 && d.resolving() == 0, 15000);
        QCOMPARE(d.rooms().first().name, name);
        QCOMPARE(d.rooms().first().address(), room.address());
        good.terminate();
        QTRY_VERIFY_WITH_TIMEOUT(d.rooms().isEmpty(), 10000);
    }
};

QTEST_MAIN(DiscoveryAvahiTest)
#include "tst_discovery_avahi.moc"
