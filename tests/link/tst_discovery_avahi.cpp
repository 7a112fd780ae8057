#include "HttpStub.h"
#include "RoomDiscovery.h"
#include "TestHome.h"

#include <QCoreApplication>
#include <QProcess>
#include <QNetworkAccessManager>
#include <QtTest>

// Discovery against the real Avahi daemon that scripts/test starts on loopback (BRAVA_TEST_AVAHI=1),
// with rooms announced by avahi-publish. Names carry this process's id so runs do not meet.
class DiscoveryAvahiTest : public QObject
{
    Q_OBJECT
    TestHome home;
    QList<QProcess *> publishers;

    QString unique(const QString &name) const
    {
        return name + QStringLiteral(" %1").arg(QCoreApplication::applicationPid());
    }
    QProcess *publish(const QStringList &args)
    {
        auto *p = new QProcess(this);
        p->setProcessChannelMode(QProcess::MergedChannels);
        p->start(QStringLiteral("avahi-publish"), args);
        if (!p->waitForStarted(3000))
            qWarning("avahi-publish did not start");
        publishers.append(p);
        return p;
    }
    static void end(QProcess *p)
    {
        p->terminate();
        p->waitForFinished(3000);
    }
    static QStringList names(const RoomDiscovery &d, const QString &suffix)
    {
        QStringList out;
        for (const Room &r : d.rooms())
            if (r.name.endsWith(suffix))
                out.append(r.name);
        return out;
    }

private slots:
    void cleanup()
    {
        for (QProcess *p : publishers)
            end(p);
        qDeleteAll(publishers);
        publishers.clear();
    }

    void unreachableDaemonMeansNotSearching()
    {
        // The bus address is read once per process, so the check runs in a child of this program
        // that is pointed at a system bus that is not there.
        if (qEnvironmentVariableIsSet("BRAVA_DISCOVERY_NO_BUS")) {
            QNetworkAccessManager net;
            RoomDiscovery d(net);
            d.start();
            QVERIFY(!d.searching());
            QVERIFY(d.rooms().isEmpty());
            return;
        }
        QProcess child;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("BRAVA_DISCOVERY_NO_BUS"), QStringLiteral("1"));
        env.insert(QStringLiteral("DBUS_SYSTEM_BUS_ADDRESS"), QStringLiteral("unix:path=/nonexistent/brava-no-bus"));
        child.setProcessEnvironment(env);
        child.setProcessChannelMode(QProcess::MergedChannels);
        child.start(QCoreApplication::applicationFilePath(), {QStringLiteral("unreachableDaemonMeansNotSearching")});
        QVERIFY(child.waitForFinished(30000));
        const QByteArray output = child.readAll();
        QVERIFY2(child.exitStatus() == QProcess::NormalExit && child.exitCode() == 0, output.constData());
        QVERIFY2(output.contains("PASS   : DiscoveryAvahiTest::unreachableDaemonMeansNotSearching()"), output.constData());
    }

    void announcedRoomsAppearAndLeave()
    {
        if (qEnvironmentVariableIntValue("BRAVA_TEST_AVAHI") != 1)
            QSKIP("no Avahi daemon for tests (run through scripts/test)");
        const QString suffix = QStringLiteral(" %1").arg(QCoreApplication::applicationPid());
        HttpStub good, missing, dead;
        missing.setDefault(HttpStub::status(404));
        QVERIFY(good.listen() && missing.listen() && dead.listen());
        const QString deadPort = QString::number(dead.port());
        dead.close();
        const QString v6host = QStringLiteral("brava-v6-%1.local").arg(QCoreApplication::applicationPid());

        QNetworkAccessManager net;
        RoomDiscovery d(net);
        // The normal 4 s liveness pass also browses again, which revives a service whose first
        // resolution failed on a busy machine. Every room kept below answers its probe, so
        // removals still come from withdrawals only.
        d.start();
        QVERIFY(d.searching());

        QProcess *goodPublisher = publish({"-s", unique("Good"), "_bravacontrol._tcp", QString::number(good.port())});
        publish({"-s", unique("Missing"), "_bravacontrol._tcp", QString::number(missing.port())});
        publish({"-s", unique("Dead"), "_bravacontrol._tcp", deadPort});
        publish({"-a", "-R", v6host, "fd00::7"});
        publish({"-s", "-H", v6host, unique("V6only"), "_bravacontrol._tcp", QString::number(good.port())});

        QTRY_COMPARE_WITH_TIMEOUT(names(d, suffix).size(), 2, 15000);
        QTest::qWait(2500); // time for the others to resolve and fail
        QStringList seen = names(d, suffix);
        seen.sort();
        QCOMPARE(seen, QStringList({unique("Good"), unique("Missing")}));
        for (const Room &r : d.rooms()) {
            if (r.name == unique("Good")) {
                QCOMPARE(r.host, QStringLiteral("127.0.0.1"));
                QCOMPARE(r.port, int(good.port()));
            }
        }
        QVERIFY(good.requests.size() >= 1);

        end(goodPublisher);
        QTRY_COMPARE_WITH_TIMEOUT(names(d, suffix), QStringList({unique("Missing")}), 10000);
    }
};

QTEST_MAIN(DiscoveryAvahiTest)
#include "tst_discovery_avahi.moc"
