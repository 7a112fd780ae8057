#include "BravaLog.h"
#include "Config.h"
#include "TestHome.h"

#include <QDateTime>
#include <QFile>
#include <QRegularExpression>
#include <QSettings>
#include <QThread>
#include <QtTest>

class SettingsTest : public QObject
{
    Q_OBJECT
    TestHome home;

private slots:
    void init()
    {
        home.wipe();
        home.useInfo(QString());
    }

    void defaultsWithNothingStored()
    {
        QCOMPARE(Config::agentID(), 0);
        QCOMPARE(Config::agentName(), QString());
        QCOMPARE(Config::server(), QString());
        QCOMPARE(Config::setupDone(), false);
        QCOMPARE(Config::wizardStep(), 0);
        QCOMPARE(Config::micUID(), QString());
        QCOMPARE(Config::camUID(), QString());
        QCOMPARE(Config::uploadQuality(), QStringLiteral("full"));
        QCOMPARE(Config::videoBitrate(), 8000000);
        QCOMPARE(Config::serverLocked(), false);
        QCOMPARE(Config::version(), QStringLiteral("2.5"));
    }

    void valuesLandInTheIniFileUnderTheirKeys()
    {
        Config::setAgentID(7);
        Config::setAgentName(QStringLiteral("Ana"));
        Config::setSetupDone(true);
        Config::setWizardStep(3);
        Config::setMicUID(QStringLiteral("alsa_input.usb"));
        QVERIFY(Config::settingsFilePath().startsWith(home.root() + QStringLiteral("/config/Brava Recorder/")));
        QVERIFY(Config::settingsFilePath().endsWith(QStringLiteral("/settings.ini")));
        // Another reader of the same file (another process, a support tool) sees every key at once.
        QSettings other(Config::settingsFilePath(), QSettings::IniFormat);
        QCOMPARE(other.value("agentID").toInt(), 7);
        QCOMPARE(other.value("agentName").toString(), QStringLiteral("Ana"));
        QCOMPARE(other.value("setupDone").toBool(), true);
        QCOMPARE(other.value("wizardStep").toInt(), 3);
        QCOMPARE(other.value("micUID").toString(), QStringLiteral("alsa_input.usb"));
    }

    void handEditedValuesAreReadBack()
    {
        QFile f(Config::settingsFilePath());
        QVERIFY(f.open(QIODevice::WriteOnly | QIODevice::Truncate));
        f.write("[General]\nagentID=12\nsetupDone=true\nagentName=Bo\nwizardStep=oops\n");
        f.close();
        // The store re-reads a file changed behind its back.
        QTRY_COMPARE(Config::agentID(), 12);
        QCOMPARE(Config::setupDone(), true);
        QCOMPARE(Config::agentName(), QStringLiteral("Bo"));
        QCOMPARE(Config::wizardStep(), 0); // not a number: the default
    }

    void trimming_data()
    {
        QTest::addColumn<QString>("given");
        QTest::addColumn<QString>("stored");
        QTest::newRow("spaces") << "  Ana Lee  " << "Ana Lee";
        QTest::newRow("tabs") << "\tAna\t" << "Ana";
        QTest::newRow("newlines kept") << "\nAna\n" << "\nAna\n";
        QTest::newRow("mixed") << " \t Ana \t\n" << "Ana \t\n";
        QTest::newRow("only blanks") << " \t " << "";
    }
    void trimming()
    {
        QFETCH(QString, given);
        QFETCH(QString, stored);
        Config::setAgentName(given);
        QCOMPARE(Config::agentName(), stored);
        Config::setServer(given);
        QCOMPARE(Config::server(), stored);
    }

    void serverFallsBackToTheBuildsFixedAddress()
    {
        home.useInfo(QStringLiteral("10.0.0.5:8080"));
        QCOMPARE(Config::server(), QStringLiteral("10.0.0.5:8080"));
        QVERIFY(Config::serverLocked());
        Config::setServer(QStringLiteral("127.0.0.1:9"));
        QCOMPARE(Config::server(), QStringLiteral("127.0.0.1:9"));
    }

    void blankFixedAddressIsNotLocked()
    {
        home.useInfo(QStringLiteral("   "));
        QCOMPARE(Config::serverLocked(), false);
    }

    void missingInfoFileGivesDefaults()
    {
        Config::overrideInfoFileForTesting(home.root() + QStringLiteral("/nowhere/Info.ini"));
        QCOMPARE(Config::defaultServer(), QString());
        QCOMPARE(Config::version(), QStringLiteral("1.0"));
        QCOMPARE(Config::buildNumber(), QString());
        QVERIFY(!Config::bundleIdentifier().isEmpty());
        QCOMPARE(Config::webServiceURL(), QString());
    }

    void videoBitrate_data()
    {
        QTest::addColumn<QString>("quality");
        QTest::addColumn<int>("bitrate");
        QTest::newRow("low") << "low" << 2000000;
        QTest::newRow("med") << "med" << 4000000;
        QTest::newRow("full") << "full" << 8000000;
        QTest::newRow("LOW is not low") << "LOW" << 8000000;
        QTest::newRow("unknown") << "ultra" << 8000000;
        QTest::newRow("empty") << "" << 8000000;
    }
    void videoBitrate()
    {
        QFETCH(QString, quality);
        QFETCH(int, bitrate);
        Config::setUploadQuality(quality);
        QCOMPARE(Config::uploadQuality(), quality);
        QCOMPARE(Config::videoBitrate(), bitrate);
    }

    void dataFoldersAreCreatedOnDemand()
    {
        const QString data = Config::dataDir();
        QCOMPARE(data, home.root() + QStringLiteral("/data/Brava Recorder"));
        QVERIFY(QDir(data).exists());
        QDir(data).removeRecursively();
        const QString pending = Config::dir(QStringLiteral("pending"));
        QCOMPARE(pending, data + QStringLiteral("/pending"));
        QVERIFY(QDir(pending).exists());
    }

    // A session names exactly one folder inside writing/ and pending/, whatever its text, and
    // the folder gives the session back; ordinary names are their own folder.
    void sessionFoldersStayInsideAndReadBack()
    {
        QCOMPARE(Config::sessionFolder(QStringLiteral("Show 1 (A&B)")), QStringLiteral("Show 1 (A&B)"));
        QCOMPARE(Config::sessionFolder(QStringLiteral("../a/b")), QStringLiteral("%2E.%2Fa%2Fb"));
        const QStringList sessions = {QString(), QStringLiteral("."), QStringLiteral(".."), QStringLiteral("../../x"),
                                      QStringLiteral("a/b"), QStringLiteral("%"), QStringLiteral("%2F"),
                                      QStringLiteral("50%41"), QString(QChar(0)) + QStringLiteral("x"), QStringLiteral("Zoë ☕")};
        QSet<QString> folders;
        for (const QString &session : sessions) {
            const QString folder = Config::sessionFolder(session);
            QVERIFY2(!folder.isEmpty() && !folder.startsWith(QLatin1Char('.')) && !folder.contains(QLatin1Char('/'))
                         && !folder.contains(QChar(0)),
                     qPrintable(folder));
            QCOMPARE(Config::sessionOfFolder(folder), session);
            folders.insert(folder);
        }
        QCOMPARE(folders.size(), sessions.size());
    }

    // The file edited by someone else while the agent runs: the next read sees the change, and
    // the agent's own next write keeps it.
    void editsFromOutsideAreSeen()
    {
        Config::setAgentID(7);
        QCOMPARE(Config::agentID(), 7);
        QTest::qWait(1100); // a new modification time, whatever the file system's resolution
        {
            // As a text editor would: the file rewritten whole, not through this process's QSettings.
            QFile file(Config::settingsFilePath());
            QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
            file.write("[General]\nagentID=12\nagentName=Edited\n");
        }
        QCOMPARE(Config::agentID(), 12);
        Config::setServer(QStringLiteral("10.0.0.9:8080"));
        QCOMPARE(Config::agentName(), QStringLiteral("Edited"));
        QSettings check(Config::settingsFilePath(), QSettings::IniFormat);
        QCOMPARE(check.value(QStringLiteral("agentID")).toInt(), 12);
    }

    void logCreatesThenAppends()
    {
        QVERIFY(!QFile::exists(Config::dataDir() + QStringLiteral("/log.txt")));
        bravaLog(QStringLiteral("first"));
        bravaLog(QStringLiteral("second — ünïcode"));
        const QStringList lines = home.log().split(QLatin1Char('\n'));
        QCOMPARE(lines.size(), 3);
        QCOMPARE(lines.last(), QString());
        const QRegularExpression shape(QStringLiteral("^\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\dZ (.*)$"));
        QCOMPARE(shape.match(lines[0]).captured(1), QStringLiteral("first"));
        QCOMPARE(shape.match(lines[1]).captured(1), QStringLiteral("second — ünïcode"));
    }

    void logLineIsUtcWithWholeSeconds()
    {
        const QDateTime t(QDate(2026, 3, 4), QTime(23, 5, 6, 789), QTimeZone(3600));
        QCOMPARE(bravaLogLine(QStringLiteral("hi"), t), QStringLiteral("2026-03-04T22:05:06Z hi"));
    }

    void logFromManyThreadsKeepsWholeLines()
    {
        QList<QThread *> threads;
        for (int t = 0; t < 4; ++t) {
            threads.append(QThread::create([t] {
                for (int i = 0; i < 200; ++i)
                    bravaLog(QStringLiteral("thread %1 line %2 %3").arg(t).arg(i).arg(QString(100, QLatin1Char('x'))));
            }));
            threads.last()->start();
        }
        for (QThread *t : threads) {
            t->wait();
            delete t;
        }
        const QStringList lines = home.log().split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        QCOMPARE(lines.size(), 800);
        for (const QString &line : lines)
            QVERIFY2(line.endsWith(QString(100, QLatin1Char('x'))) && line.count(QLatin1Char('Z')) == 1, qPrintable(line));
    }

    void logToAnUnwritableFolderIsSilent()
    {
        // A folder where the log file should be makes the open fail; the caller never notices.
        QDir(Config::dataDir()).mkpath(QStringLiteral("log.txt"));
        bravaLog(QStringLiteral("lost"));
        QVERIFY(QFileInfo(Config::dataDir() + QStringLiteral("/log.txt")).isDir());
    }
};

QTEST_GUILESS_MAIN(SettingsTest)
#include "tst_settings.moc"
