#include "BravaLog.h"
#include "DataFolder.h"
#include "QueryString.h"
#include "SessionFolder.h"
#include "TestHome.h"
#include "XdgFolder.h"

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
        Settings &settings = home.settings();
        QCOMPARE(settings.uploadQuality(), QStringLiteral("full"));
        // A file made from outside where there was none: the folder is watched too.
        QFile::remove(settings.path());
        QTRY_VERIFY(settings.reads() > 0 && !QFile::exists(settings.path()));
        settings.reload();
        QSettings(settings.path(), QSettings::IniFormat).setValue("micUID", QStringLiteral("m1"));
        QTRY_COMPARE_WITH_TIMEOUT(settings.micUID(), QStringLiteral("m1"), 1000);
        QSignalSpy idChanged(&settings, &Settings::agentIDChanged);
        settings.setAgentID(7);
        settings.setAgentID(7);
        QVERIFY(idChanged.size() == 1 && idChanged.first().first().toInt() == 7); // announced once per change
        QCOMPARE(QSettings(settings.path(), QSettings::IniFormat).value("agentID").toInt(), 7); // written through at once
        // Someone else replaces the file while the agent runs (as editors save), changing every
        // value: within a second the agent has the new values, each announced by its own signal.
        settings.setWizardStep(2);
        std::vector<std::unique_ptr<QSignalSpy>> announced;
        for (int i = Settings::staticMetaObject.methodOffset(); i < Settings::staticMetaObject.methodCount(); ++i)
            if (Settings::staticMetaObject.method(i).methodType() == QMetaMethod::Signal)
                announced.push_back(std::make_unique<QSignalSpy>(&settings, Settings::staticMetaObject.method(i)));
        QFile f(settings.path() + QStringLiteral(".new"));
        QVERIFY(f.open(QIODevice::WriteOnly | QIODevice::Truncate));
        f.write("[General]\nagentID=12\nsetupDone=1\nagentName=\\nBo\\n\nwizardStep=oops\nuploadQuality=low\nserver=10.0.0.7:1\n"
                "wizardFurthest=4\nmicUID=m2\ncamUID=c2\nsaleWidgetFrame=\"{{12, 300}, {196, 182}}\"\n");
        f.close();
        QVERIFY(QFile::remove(settings.path()) && f.rename(settings.path()));
        QTRY_VERIFY_WITH_TIMEOUT(settings.agentID() == 12, 1000);
        QVERIFY(settings.setupDone() && settings.saleWidgetFrame() == QStringLiteral("{{12, 300}, {196, 182}}"));
        QCOMPARE(announced.size(), size_t(10)); // one signal per setting
        for (const auto &spy : announced)
            QVERIFY2(spy->size() == 1, spy->signal().constData());
        QCOMPARE(settings.agentName(), QStringLiteral("\nBo\n")); // only spaces and tabs are trimmed
        QVERIFY(settings.wizardStep() == 0 && settings.videoBitrate() == 2000000); // not a number: the default
        // The replaced file is watched as well: a second edit in place arrives too.
        QVERIFY(f.open(QIODevice::Append));
        f.write("camUID=usb-cam\n");
        f.close();
        QTRY_COMPARE_WITH_TIMEOUT(settings.camUID(), QStringLiteral("usb-cam"), 1000);
        // Names and addresses lose their spaces and tabs on the way in; the file keeps the rest.
        QVERIFY(settings.setAgentName(QStringLiteral(" \tAna Lee\t ")) && settings.setServer(QStringLiteral("\t10.0.0.2:80 ")));
        QVERIFY(settings.agentName() == QStringLiteral("Ana Lee") && settings.server() == QStringLiteral("10.0.0.2:80"));
        const QSettings file(settings.path(), QSettings::IniFormat);
        QVERIFY(file.value("agentName") == QStringLiteral("Ana Lee") && file.value("server") == QStringLiteral("10.0.0.2:80"));
        QCOMPARE(file.value("agentID").toInt(), 12);
        // A file that cannot be written is said in the log.
        QVERIFY(QFile::remove(settings.path()) && QDir().mkdir(settings.path()));
        settings.setAgentID(3);
        QVERIFY(home.log().contains(QStringLiteral("settings: agentID could not be written to ") + settings.path()));
    }

    // Every upload quality word has its own bit rate; anything else is full quality.
    void qualityWordsMapToBitRates()
    {
        const struct { const char *word; int bitRate; } rows[] = {{"low", 2000000}, {"med", 4000000}, {"full", 8000000}, {"LOW", 8000000}, {"medium", 8000000}};
        for (const auto &r : rows) {
            home.settings().setUploadQuality(QString::fromUtf8(r.word));
            QVERIFY2(home.settings().videoBitrate() == r.bitRate, r.word);
        }
    }

    // A stored value outside its bounds reads as unset and is logged once, however often it is read.
    void outOfBoundsValuesReadAsUnset()
    {
        QVERIFY(Settings::kMaxNameLength == 100 && Settings::kMaxServerLength == 255 && Settings::kMaxFrameLength == 64 && Settings::kSettleMs == 100);
        const QString name(Settings::kMaxNameLength, QLatin1Char('n')), address(Settings::kMaxServerLength, QLatin1Char('s'));
        const struct { const char *key; QString stored, read; } rows[] = { // id beyond 32 bits, negative, largest; name and address too long, at the limit
            {"agentID", QStringLiteral("99999999999"), QStringLiteral("0")}, {"agentID", QStringLiteral("-3"), QStringLiteral("0")}, {"agentID", QStringLiteral("18446744073709551623"), QStringLiteral("0")}, // 2^64 + 7 would wrap to 7
            {"agentID", QStringLiteral("2147483647"), QStringLiteral("2147483647")}, {"agentName", name + QLatin1Char('n'), QString()}, {"agentName", name, name},
            {"server", address + QLatin1Char('s'), QString()}, {"server", address, address}};
        for (const auto &r : rows) {
            init();
            const QString key = QString::fromLatin1(r.key);
            Settings &settings = home.settings();
            QSettings(settings.path(), QSettings::IniFormat).setValue(key, r.stored);
            const auto get = [&] { return key == QLatin1String("agentID") ? QString::number(settings.agentID()) : key == QLatin1String("server") ? settings.server() : settings.agentName(); };
            for (int i = 0; i < 2; ++i) {
                settings.reload();
                QCOMPARE(get(), r.read);
            }
            QCOMPARE(home.log().count(QStringLiteral("settings: ") + key), r.read == r.stored ? 0 : 1);
            // Setters refuse what readers would refuse, and say so.
            if (key != QLatin1String("agentID") && r.read != r.stored) {
                QVERIFY(!(key == QLatin1String("server") ? settings.setServer(r.stored) : settings.setAgentName(r.stored)));
                QCOMPARE(home.log().count(QStringLiteral("settings: ") + key), 2);
            }
        }
    }

    void buildInformationAndFolders()
    {
        home.useInfo(QStringLiteral("10.0.0.5:8080"), QStringLiteral("3.1"), QStringLiteral(" http://w.example/ "));
        QVERIFY(home.info().serverLocked() && home.settings().server() == QStringLiteral("10.0.0.5:8080"));
        QVERIFY(home.info().version() == QStringLiteral("3.1") && home.info().buildNumber() == QStringLiteral("7"));
        home.settings().setServer(QStringLiteral("127.0.0.1:9"));
        QVERIFY(home.info().webServiceURL() == QStringLiteral("http://w.example") && home.settings().server() == QStringLiteral("127.0.0.1:9"));
        home.useInfo(QStringLiteral("   "));
        QVERIFY(!home.info().serverLocked() && !home.info().packageManaged()); // only the installed copy of Info.ini says so
        const BuildInfo none = BuildInfo::read(home.root() + QStringLiteral("/missing.ini"));
        QVERIFY(none.version() == QStringLiteral("1.0") && none.bundleIdentifier() == QStringLiteral("com.vantorra.brava-recorder"));
        QCOMPARE(BuildInfo::besideExecutable(), QCoreApplication::applicationDirPath() + QStringLiteral("/Info.ini"));
        QVERIFY(QDir(DataFolder::dir(QStringLiteral("pending"))).exists());
        QCOMPARE(DataFolder::dir(QStringLiteral("pending")), home.root() + QStringLiteral("/data/Brava Recorder/pending"));
        QCOMPARE(home.settings().path(), home.root() + QStringLiteral("/config/Brava Recorder/settings.ini"));
        for (const QString &folder : {DataFolder::dataDir(), QFileInfo(home.settings().path()).path()}) // recorded calls are this user's only
            QVERIFY2(QFileInfo(folder).permissions() == (QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner | QFile::ReadUser | QFile::WriteUser | QFile::ExeUser), qPrintable(folder));
        QCOMPARE(xdgFolder(XdgFolder::Autostart), home.root() + QStringLiteral("/config/autostart"));
        // A session names exactly one folder inside writing/ and pending/, whatever its text, and
        // the folder gives the session back; past 255 bytes the name is cut at a whole character and marked.
        const QStringList sessions = {QString(), QStringLiteral(".."), QStringLiteral("../../x"), QStringLiteral("%"), QStringLiteral("%2F"), QString(QChar(0)) + QStringLiteral("x"),
                                      QStringLiteral("Zoë ☕"), QString(85, QChar(0x6771)), QString(86, QChar(0x6771)), QStringLiteral("a") + QString::fromUtf8("😀").repeated(64)};
        QSet<QString> folders;
        for (const QString &session : sessions) {
            const QString folder = *folders.insert(SessionFolder::name(session));
            QVERIFY2(!folder.isEmpty() && !folder.startsWith(QLatin1Char('.')) && !folder.contains(QLatin1Char('/')) && !folder.contains(QChar(0)) && folder.toUtf8().size() <= 255
                     && QString::fromUtf8(folder.toUtf8()) == folder && folder.contains(QStringLiteral("%h")) == (session.toUtf8().size() > 255), qPrintable(folder));
            QCOMPARE(SessionFolder::sessionOf(SessionFolder::make(home.root(), session)), session);
        }
        QCOMPARE(folders.size(), sessions.size());
    }

    // A control-room address is a host and a port and nothing else; the query is fully encoded.
    void serverAddressesMakeUrlsOnlyAsHostAndPort()
    {
        const struct { const char *server, *url; } rows[] = { // "" when refused
            {"10.0.0.5:8080", "ws://10.0.0.5:8080/agent?n=a%2Fb%20c"}, {"Room.local", "ws://room.local/agent?n=a%2Fb%20c"},
            {"[::1]:80", "ws://[::1]:80/agent?n=a%2Fb%20c"}, {"h:1/x", ""}, {"h:1?y=", ""}, {"u@h:1", ""}, {"", ""}};
        for (const auto &r : rows)
            QCOMPARE(QueryString::at(QStringLiteral("ws"), QString::fromUtf8(r.server), QStringLiteral("/agent"), {{QStringLiteral("n"), QStringLiteral("a/b c")}}).toString(QUrl::FullyEncoded),
                     QString::fromUtf8(r.url));
    }

    void logLinesStayWholeFromManyThreads()
    {
        const QDateTime t(QDate(2026, 3, 4), QTime(23, 5, 6, 789), QTimeZone(3600));
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
