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
    std::vector<std::unique_ptr<QProcess>> publishers;

    QProcess *publish(const QString &name, quint16 port)
    {
        publishers.push_back(std::make_unique<QProcess>());
        publishers.back()->start(QStringLiteral("avahi-publish"), {QStringLiteral("-s"), name, QStringLiteral("_bravacontrol._tcp"),
                                                                  QString::number(port)});
        return publishers.back().get();
    }

private Q_SLOTS:
    void announcedRoomsThatAnswerAppearAndLeave()
    {
        if (qEnvironmentVariableIntValue("BRAVA_TEST_AVAHI") != 1)
            QSKIP("no Avahi daemon for tests (run through scripts/test)");
        const QString good = QStringLiteral("Good %1").arg(QCoreApplication::applicationPid());
        HttpStub room, dead;
        QVERIFY(room.listen() && dead.listen());
        const quint16 deadPort = dead.port();
        dead.close();
        QNetworkAccessManager net;
        RoomDiscovery d(net);
        d.start();
        QVERIFY(d.searching());
        QProcess *goodPublisher = publish(good, room.port());
        publish(QStringLiteral("Dead %1").arg(QCoreApplication::applicationPid()), deadPort);
        QTRY_VERIFY_WITH_TIMEOUT(d.rooms().size() == 1 && d.resolving() == 0, 15000);
        QCOMPARE(d.rooms().first().name, good);
        QCOMPARE(d.rooms().first().address(), room.address());
        goodPublisher->terminate();
        QTRY_VERIFY_WITH_TIMEOUT(d.rooms().isEmpty(), 10000);
    }
};

QTEST_MAIN(DiscoveryAvahiTest)
#include "tst_discovery_avahi.moc"
