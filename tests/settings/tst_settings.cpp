#include "BravaLog.h"
#include "Config.h"
#include "QueryString.h"
#include "StrictInt.h"
#include "TestHome.h"
#include "XdgFolder.h"

#include <QRegularExpression>
#include <QSettings>
#include <QtTest>

#include <thread>

class SettingsTest : public QObject
{
    Q_OBJECT
    TestHome home;

private Q_SLOTS:
    void init()
    {
        home.wipe();
        home.useInfo(QString());
    }

    void storedAndHandEditedValues()
    {
        QCOMPARE(Config::uploadQuality(), QStringLiteral("full"));
        Config::setAgentID(7);
        Config::setAgentName(QStringLiteral("  Ana\t"));
        QSettings other(Config::settingsFilePath(), QSettings::IniFormat);
        QVERIFY(other.value("agentID").toInt() == 7 && other.value("agentName").toString() == QStringLiteral("Ana"));
        // Someone else rewrites the file while the agent runs (with a new modification time): the next read sees it.
        QFile f(Config::settingsFilePath());
        QVERIFY(f.open(QIODevice::WriteOnly | QIODevice::Truncate));
        f.write("[General]\nagentID=12\nsetupDone=true\nagentName=\\nBo\\n\nwizardStep=oops\nuploadQuality=low\n");
        QVERIFY(f.setFileTime(QDateTime::currentDateTime().addSecs(10), QFileDevice::FileModificationTime));
        f.close();
        QVERIFY(Config::agentID() == 12 && Config::setupDone());
        QCOMPARE(Config::agentName(), QStringLiteral("\nBo\n")); // only spaces and tabs are trimmed
        QVERIFY(Config::wizardStep() == 0 && Config::videoBitrate() == 2000000); // not a number: the default
        Config::setServer(QStringLiteral("10.0.0.9:8080"));
        QCOMPARE(QSettings(Config::settingsFilePath(), QSettings::IniFormat).value("agentID").toInt(), 12);
    }

    // A stored value outside its bounds reads as unset and is logged once, however often it is read.
    void outOfBoundsValuesReadAsUnset_data()
    {
        QTest::addColumn<QString>("key");
        QTest::addColumn<QString>("stored");
        QTest::addColumn<QString>("read");
        QTest::newRow("id beyond 32 bits") << "agentID" << "99999999999" << "0";
        QTest::newRow("id negative") << "agentID" << "-3" << "0";
        QTest::newRow("id largest") << "agentID" << "2147483647" << "2147483647";
        QTest::newRow("name too long") << "agentName" << QString(Config::kMaxNameLength + 1, QLatin1Char('n')) << "";
        QTest::newRow("name at the limit") << "agentName" << QString(Config::kMaxNameLength, QLatin1Char('n')) << QString(Config::kMaxNameLength, QLatin1Char('n'));
        QTest::newRow("address too long") << "server" << QString(Config::kMaxServerLength + 1, QLatin1Char('s')) << "";
    }
    void outOfBoundsValuesReadAsUnset()
    {
        QFETCH(QString, key);
        QFETCH(QString, stored);
        QFETCH(QString, read);
        QSettings(Config::settingsFilePath(), QSettings::IniFormat).setValue(key, stored);
        const auto get = [&] { return key == QLatin1String("agentID") ? QString::number(Config::agentID()) : key == QLatin1String("server") ? Config::server() : Config::agentName(); };
        QCOMPARE(get(), read);
        QCOMPARE(get(), read);
        QCOMPARE(home.log().count(QStringLiteral("settings: ") + key), read == stored ? 0 : 1);
        // Setters refuse what readers would refuse, and say so.
        if (key != QLatin1String("agentID") && read != stored) {
            QVERIFY(!(key == QLatin1String("server") ? Config::setServer(stored) : Config::setAgentName(stored)));
            QCOMPARE(home.log().count(QStringLiteral("settings: ") + key), 2);
        }
    }

    void buildInformationAndFolders()
    {
        home.useInfo(QStringLiteral("10.0.0.5:8080"), QStringLiteral("3.1"), QStringLiteral(" http://w.example/ "));
        QVERIFY(Config::serverLocked() && Config::server() == QStringLiteral("10.0.0.5:8080"));
        Config::setServer(QStringLiteral("127.0.0.1:9"));
        QVERIFY(Config::webServiceURL() == QStringLiteral("http://w.example") && Config::server() == QStringLiteral("127.0.0.1:9"));
        home.useInfo(QStringLiteral("   "));
        QVERIFY(!Config::serverLocked());
        Config::overrideInfoFileForTesting(QString()); // the build's own: beside the executable
        QCOMPARE(Config::infoFilePath(), QCoreApplication::applicationDirPath() + QStringLiteral("/Info.ini"));
        QVERIFY(!Config::packageManaged()); // only the installed copy of Info.ini says so
        QVERIFY(QDir(Config::dir(QStringLiteral("pending"))).exists());
        QCOMPARE(Config::dir(QStringLiteral("pending")), home.root() + QStringLiteral("/data/Brava Recorder/pending"));
        QCOMPARE(xdgFolder(XdgFolder::Autostart), home.root() + QStringLiteral("/config/autostart"));
    }

    // A control-room address is a host and a port and nothing else; the query is fully encoded.
    void serverAddressesMakeUrlsOnlyAsHostAndPort_data()
    {
        QTest::addColumn<QString>("server");
        QTest::addColumn<QString>("url"); // "" when refused
        QTest::newRow("host:port") << "10.0.0.5:8080" << "ws://10.0.0.5:8080/agent?n=a%2Fb%20c";
        QTest::newRow("name, no port") << "Room.local" << "ws://room.local/agent?n=a%2Fb%20c";
        QTest::newRow("IPv6") << "[::1]:80" << "ws://[::1]:80/agent?n=a%2Fb%20c";
        QTest::newRow("path") << "h:1/x" << "";
        QTest::newRow("query") << "h:1?y=" << "";
        QTest::newRow("user") << "u@h:1" << "";
        QTest::newRow("empty") << "" << "";
    }
    void serverAddressesMakeUrlsOnlyAsHostAndPort()
    {
        QFETCH(QString, server);
        QFETCH(QString, url);
        QCOMPARE(QueryString::at(QStringLiteral("ws"), server, QStringLiteral("/agent"), {{QStringLiteral("n"), QStringLiteral("a/b c")}}).toString(QUrl::FullyEncoded), url);
    }

    void strictIntegers_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<int>("value"); // -1: none
        QTest::newRow("plain") << "110" << 110;
        QTest::newRow("plus") << "+7" << 7;
        QTest::newRow("above range") << "111" << -1;
        QTest::newRow("space") << " 7" << -1;
        QTest::newRow("trailing text") << "7a" << -1;
        QTest::newRow("empty") << "" << -1;
        QTest::newRow("overflow") << "99999999999999999999" << -1;
    }
    void strictIntegers()
    {
        QFETCH(QString, text);
        QFETCH(int, value);
        QCOMPARE(parseStrictInt(text, 0, 110).value_or(-1), value);
    }

    // A session names exactly one folder inside writing/ and pending/, whatever its text, and
    // the folder gives the session back.
    void sessionFoldersStayInsideAndReadBack()
    {
        const QStringList sessions = {QString(), QStringLiteral(".."), QStringLiteral("../../x"), QStringLiteral("%"),
                                      QStringLiteral("%2F"), QString(QChar(0)) + QStringLiteral("x"), QStringLiteral("Zoë ☕")};
        QSet<QString> folders;
        for (const QString &session : sessions) {
            const QString folder = *folders.insert(Config::sessionFolder(session));
            QVERIFY2(!folder.isEmpty() && !folder.startsWith(QLatin1Char('.')) && !folder.contains(QLatin1Char('/')) && !folder.contains(QChar(0)), qPrintable(folder));
            QCOMPARE(Config::sessionOfFolder(folder), session);
        }
        QCOMPARE(folders.size(), sessions.size());
    }

    void logLinesStayWholeFromManyThreads()
    {
        const QDateTime t(QDate(2026, 3, 4), QTime(23, 5, 6, 789), QTimeZone(3600));
        QCOMPARE(bravaLogLine(QStringLiteral("hi"), t), QStringLiteral("2026-03-04T22:05:06Z hi"));
        // Whatever a message holds, it stays one line.
        QCOMPARE(bravaLogLine(QStringLiteral("s\nx\r\t") + QChar(0) + QChar(0x1b) + QChar(0x85) + QChar(0x2028) + QStringLiteral("é\\"), t),
                 QStringLiteral("2026-03-04T22:05:06Z s\\nx\\r\\t\\u0000\\u001b\\u0085\\u2028é\\"));
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t)
            threads.emplace_back([t] {
                for (int i = 0; i < 200; ++i)
                    bravaLog(QStringLiteral("thread %1 line %2 %3").arg(t).arg(i).arg(QString(100, QLatin1Char('x'))));
            });
        for (std::thread &t : threads)
            t.join();
        const QRegularExpression shape(QStringLiteral("^(\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\dZ thread \\d line \\d+ x{100}\n){800}$"));
        QVERIFY(shape.match(home.log()).hasMatch());
    }
};

QTEST_GUILESS_MAIN(SettingsTest)
#include "tst_settings.moc"
