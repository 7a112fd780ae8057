// Upkeep: relaunching into a newer build once the old process has gone, and uninstalling to the
// Trash with nothing of the agent left outside it.
#include "AppUpdates.h"
#include "BuildInfo.h"
#include "LoginItem.h"
#include "Relaunch.h"
#include "Upkeep.h"
#include "Uninstaller.h"

#include <QDirIterator>
#include <QProcess>
#include <QtTest>

#include <unistd.h>

namespace {

void writeFile(const QString &path, const QByteArray &data = "x")
{
    QDir().mkpath(QFileInfo(path).path());
    QFile f(path);
    QVERIFY(f.open(QIODevice::WriteOnly));
    f.write(data);
}

QByteArray readFile(const QString &path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

// Every file (not folder) below `root`, leaving out `except`.
QStringList filesBelow(const QString &root, const QString &except)
{
    QStringList files;
    for (QDirIterator it(root, QDir::Files | QDir::Hidden | QDir::System, QDirIterator::Subdirectories); it.hasNext();)
        if (const QString path = it.next(); !path.startsWith(except))
            files.append(path);
    files.sort();
    return files;
}

} // namespace

class UpkeepTest : public QObject
{
    Q_OBJECT
    QTemporaryDir tmp;
    const QString home = tmp.path() + QLatin1String("/home");

public:
    UpkeepTest()
    {
        // A home of its own before anything logs.
        qputenv("HOME", QFile::encodeName(home));
        qputenv("XDG_CONFIG_HOME", QFile::encodeName(home + QLatin1String("/.config")));
        qputenv("XDG_DATA_HOME", QFile::encodeName(home + QLatin1String("/.local/share")));
        QDir().mkpath(home);
    }

private Q_SLOTS:
    // A newer build (in number order) on disk relaunches only once the agent is idle (no take, no
    // pending upload).
    void newBuildWaitsForIdle()
    {
        const struct { const char *onDisk, *running; bool relaunch; } rows[] = {
            {"8", "7", true}, {"10", "9", true}, {"7", "7", false}, {"6", "7", false}, {"", "7", false}};
        for (const auto &r : rows)
            QVERIFY2(Relaunch::newBuild(QString::fromUtf8(r.onDisk), QString::fromUtf8(r.running)) == r.relaunch, r.onDisk);
        const QString info = tmp.path() + QLatin1String("/Info.ini"), exe = tmp.path() + u'/' + QFileInfo(QCoreApplication::applicationFilePath()).fileName();
        writeFile(info, "[General]\nCFBundleVersion=7\n");
        writeFile(exe, "#!/bin/sh\n");
        QFile::setPermissions(exe, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        const BuildInfo running = BuildInfo::read(info);
        bool busy = true;
        int relaunched = 0;
        Upkeep upkeep(running, [&busy] { return busy; });
        upkeep.relaunch = [&relaunched] { ++relaunched; };
        const auto check = [&upkeep] {
            upkeep.checkForNewVersion();
            QVERIFY(upkeep.checking()); // the file is read off the main thread
            QTRY_VERIFY(!upkeep.checking());
        };
        check();
        writeFile(info, "[General]\nCFBundleVersion=10\n"); // another size: the INI reader sees the change at once
        check();
        QCOMPARE(relaunched, 0);
        busy = false;
        // A program file that changed since the check before (still being copied) waits a check;
        // one that cannot run is never started.
        for (const bool runnable : {false, true}) {
            writeFile(exe, runnable ? "#!/bin/sh\n" : "#!/bin/sh\n\n");
            QFile::setPermissions(exe, QFile::ReadOwner | QFile::WriteOwner | (runnable ? QFile::ExeOwner : QFile::Permissions()));
            check();
            if (!runnable)
                check();
            QCOMPARE(relaunched, 0);
        }
        check();
        QCOMPARE(relaunched, 1);

        // This copy removed (its build file gone for kGoneChecks checks in a row, a gap in between
        // starts the count again): it quits, once idle.
        int quits = 0;
        upkeep.quit = [&quits] { ++quits; };
        for (const bool comesBack : {true, false}) {
            QVERIFY(QFile::remove(info));
            for (int i = 1; i < Upkeep::kGoneChecks; ++i)
                check();
            if (comesBack) {
                writeFile(info, "[General]\nCFBundleVersion=7\n");
                check();
            }
        }
        busy = true;
        check();
        QCOMPARE(quits, 0);
        busy = false;
        check();
        QCOMPARE(quits, 1);
    }

    // The relaunch script, and the start-at-login entry as GLib's desktop-entry reader runs it, start
    // exactly the program in a folder whose name holds shell syntax.
    void startsTheRightFile()
    {
        for (const bool atLogin : {false, true}) {
            const QString work = tmp.path() + QLatin1String("/relaunch"), folder = work + QLatin1String("/it's \"a\" $(touch PWNED) `touch PWNED2` dir"), exe = folder + QLatin1String("/brava-recorder");
            QDir(work).removeRecursively();
            writeFile(exe, "#!/bin/sh\necho \"$0\" > \"$(dirname \"$0\")/started\"\n");
            QFile::setPermissions(exe, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
            QVERIFY(QDir::setCurrent(work));
            if (atLogin) {
                if (QStandardPaths::findExecutable(QStringLiteral("gio")).isEmpty())
                    QSKIP("no gio (libglib2.0-bin) to read the entry");
                writeFile(folder + QLatin1String("/entry.desktop"), "[Desktop Entry]\nType=Application\nName=B\nExec=" + LoginItem::execQuoted(exe).toUtf8() + "\n");
                QCOMPARE(QProcess::execute(QStringLiteral("gio"), {QStringLiteral("launch"), folder + QLatin1String("/entry.desktop")}), 0);
            } else { // the relaunch waits for the old process to end; the shell polls every 0.2 s
                QProcess old;
                old.start(QStringLiteral("sleep"), {QStringLiteral("60")});
                QVERIFY(old.waitForStarted() && Relaunch::start(old.processId(), exe));
                QTest::qWait(600);
                QVERIFY(!QFile::exists(folder + QLatin1String("/started")));
                old.kill();
                old.waitForFinished();
            }
            QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(folder + QLatin1String("/started")), 10000);
            QCOMPARE(QString::fromUtf8(readFile(folder + QLatin1String("/started"))).trimmed(), exe);
            QCOMPARE(QDir(work).entryList(QDir::Files), QStringList());
        }
    }

    // Start at login never points into a temporary folder or the updater's work folders.
    void loginItemOnlyForLastingPlaces()
    {
        QVERIFY(QDir().mkpath(tmp.path() + QLatin1String("/t")));
        qputenv("TMPDIR", QFile::encodeName(tmp.path() + QLatin1String("/t"))); // apart from the home and its data folder
        const auto restore = qScopeGuard([] { qunsetenv("TMPDIR"); });
        const QString verified = QLatin1String("/brava-update-1/verified/Brava Recorder/brava-recorder");
        const QList<std::pair<QString, bool>> rows = {
            {QDir::tempPath() + QLatin1String("/x/brava-recorder"), false}, {AppUpdates::defaultWorkRoot() + verified, false},
            {home + QLatin1String("/Apps/Brava Recorder/brava-recorder"), true}, {QStringLiteral("/usr/lib/brava-recorder/brava-recorder"), true}};
        for (const auto &[exe, lasting] : rows) {
            QVERIFY2(LoginItem::lastingPlace(exe) == lasting, qPrintable(exe));
            QFile::remove(LoginItem::entryPath());
            LoginItem::registerCurrentUser(exe); // written only for a lasting place
            QVERIFY2(readFile(LoginItem::entryPath()).contains(QByteArray("Exec=" + LoginItem::execQuoted(exe).toUtf8())) == lasting, qPrintable(exe));
        }
    }

    void confirmation()
    {
        using R = Uninstaller::AppRemoval;
        const QString none = QStringLiteral("This removes Brava Recorder and its settings from this computer. Recordings already sent to the control room aren't affected.");
        const QString waiting = QStringLiteral(" recording file(s) haven't uploaded to the control room yet. Connect to the event Wi-Fi and wait for them to finish, "
                                "or they'll be lost.");
        const QList<std::tuple<int, R, QString, QString>> rows = { // pending, removal: text, first button; critical while files wait
            {0, R::Trash, none, QStringLiteral("Uninstall")},
            {3, R::Trash, QLatin1String("3") + waiting, QStringLiteral("Uninstall Anyway")},
            {0, R::Package, QLatin1String("This removes Brava Recorder's settings and recordings from this computer. Recordings already sent to the control room aren't affected.")
                                + QLatin1String("\n\nThe program itself stays installed with the system's packages, but no longer starts at login for you; removing the brava-recorder package needs an administrator."), QStringLiteral("Uninstall")},
            {1, R::ByHand, QLatin1String("1") + waiting + QLatin1String("\n\nThe program's folder stays where it is: /opt/b"), QStringLiteral("Uninstall Anyway")}};
        for (const auto &[pending, removal, text, button] : rows) {
            const Alert a = Uninstaller::confirmation(pending, removal, QStringLiteral("/opt/b"));
            QCOMPARE(a.message, QStringLiteral("Uninstall Brava Recorder?"));
            QCOMPARE(a.informative, text);
            QCOMPARE(a.buttons, (QStringList{button, QStringLiteral("Cancel")}));
            QVERIFY(a.critical == (pending > 0) && a.defaultButton == (pending > 0 ? 1 : 0)); // Enter keeps what waits
        }
    }

    void removalOfTheProgram()
    {
        const QString release = home + QLatin1String("/Apps/Brava Recorder");
        writeFile(release + QLatin1String("/RELEASE-MANIFEST"));
        QCOMPARE(Uninstaller::removalOf(release), Uninstaller::AppRemoval::Trash);
        QCOMPARE(Uninstaller::removalOf(home), Uninstaller::AppRemoval::ByHand); // no release in it
        writeFile(tmp.path() + QLatin1String("/elsewhere/RELEASE-MANIFEST")); // outside the home folder
        QCOMPARE(Uninstaller::removalOf(tmp.path() + QLatin1String("/elsewhere")), Uninstaller::AppRemoval::ByHand);
        QCOMPARE(Uninstaller::removalOf(QStringLiteral("/usr/bin")), ::geteuid() == 0 ? Uninstaller::AppRemoval::ByHand : Uninstaller::AppRemoval::Package);
        if (::geteuid() == 0) {
            QVERIFY(::chown(QFile::encodeName(release).constData(), 65534, 65534) == 0);
            QCOMPARE(Uninstaller::removalOf(release), Uninstaller::AppRemoval::Package);
            QVERIFY(::chown(QFile::encodeName(release).constData(), 0, 0) == 0);
        }
    }

    // Cancelled, uninstalled anyway, uninstalled from a package install, uninstalled with no Trash.
    void uninstall()
    {
        for (const auto &[answer, package, noTrash] : {std::tuple(1, false, false), std::tuple(0, false, false), std::tuple(0, true, false), std::tuple(0, false, true)}) {
            QDir(home).removeRecursively();
            const QString app = home + QLatin1String("/Apps/Brava Recorder"), trash = home + QLatin1String("/.local/share/Trash");
            const Uninstaller::Paths paths{app, home + QLatin1String("/.local/share/Brava Recorder"), home + QLatin1String("/.config/Brava Recorder/settings.ini"),
                                           home + QLatin1String("/.config/autostart/brava-recorder.desktop"), package};
            for (const QString &file : QStringList{app + QLatin1String("/brava-recorder"), app + QLatin1String("/RELEASE-MANIFEST"), paths.dataFolder + QLatin1String("/pending/s1/mic_1_00000_final.m4a"),
                                        paths.settingsFile, paths.autostartEntry, paths.dataFolder + QLatin1String("/writing/s2/.session"),
                                        paths.dataFolder + QLatin1String("/writing/s2/sys_1_00000.m4a"), paths.dataFolder + QLatin1String("/writing/s2/cam_1_00000.mp4")})
                writeFile(file);
            Uninstaller u(paths);
            QList<Alert> alerts;
            bool stopped = false, cleared = false, quit = false;
            u.pendingCount = [] { return 2; };
            u.ask = [&](const Alert &a, std::function<void(int)> reply) {
                alerts.append(a);
                QMetaObject::invokeMethod(&u, [reply, answer] { reply(answer); }, Qt::QueuedConnection);
            };
            u.stopRecorder = [&](std::function<void()> done) {
                stopped = true;
                QMetaObject::invokeMethod(&u, done, Qt::QueuedConnection);
            };
            u.beforeRemoving = [&] { cleared = stopped; };
            u.quit = [&] { quit = true; };
            if (noTrash)
                writeFile(trash); // a file where the Trash would be: nothing can be moved there
            const QStringList before = filesBelow(home, trash);
            u.start();
            QVERIFY(alerts.size() == 1 && alerts[0].informative.startsWith(QLatin1String("4 recording file(s)"))); // 2 to upload, 2 of a running take
            if (answer != 0) {
                // The answer is queued, and so is the recorder's stop: two rounds of events would reach a removal.
                QCoreApplication::processEvents();
                QCoreApplication::processEvents();
                QVERIFY(!stopped && !quit);
                QCOMPARE(filesBelow(home, trash), before);
                continue;
            }
            QTRY_VERIFY(quit);
            QVERIFY(cleared);
            QVERIFY(!QFileInfo::exists(home + QLatin1String("/.config/Brava Recorder")));
            if (noTrash) {
                // Both folders stay where they were, and the person is told so before the agent goes.
                QCOMPARE(filesBelow(home, trash), (QStringList{paths.dataFolder + QLatin1String("/log.txt"), paths.dataFolder + QLatin1String("/pending/s1/mic_1_00000_final.m4a"),
                                                               paths.dataFolder + QLatin1String("/writing/s2/.session"), paths.dataFolder + QLatin1String("/writing/s2/cam_1_00000.mp4"),
                                                               paths.dataFolder + QLatin1String("/writing/s2/sys_1_00000.m4a"), app + QLatin1String("/RELEASE-MANIFEST"), app + QLatin1String("/brava-recorder")}));
                QCOMPARE(readFile(paths.dataFolder + QLatin1String("/log.txt")).count("cannot move to the Trash, left in place"), 2);
                QVERIFY(alerts.size() == 2 && alerts[1].informative == QLatin1String("Remove by hand what is left:\n") + app + QLatin1Char('\n') + paths.dataFolder);
                continue;
            }
            QCOMPARE(alerts.size(), 1);
            if (package) {
                // The package's folder is the package manager's; this user's autostart entry hides
                // the package's, so the agent no longer starts at their login.
                QCOMPARE(filesBelow(home, trash), (QStringList{paths.autostartEntry, app + QLatin1String("/RELEASE-MANIFEST"), app + QLatin1String("/brava-recorder")}));
                QVERIFY(readFile(paths.autostartEntry).contains("\nHidden=true\n"));
                QCOMPARE(QDir(trash + QLatin1String("/files")).entryList(QDir::Dirs | QDir::NoDotAndDotDot).size(), 1);
                continue;
            }
            // Nothing of the agent outside the Trash; in the Trash the two folders with notes of where they were.
            QCOMPARE(filesBelow(home, trash), QStringList());
            QCOMPARE(QDir(trash + QLatin1String("/files")).entryList(QDir::Dirs | QDir::NoDotAndDotDot).size(), 2);
            QString notes;
            for (const QFileInfo &note : QDir(trash + QLatin1String("/info")).entryInfoList({QStringLiteral("*.trashinfo")}))
                notes += QUrl::fromPercentEncoding(readFile(note.filePath()));
            QCOMPARE(notes.count(QStringLiteral("[Trash Info]\nPath=")), 2);
            QVERIFY2(notes.contains(QString(QLatin1String("Path=") + app + QLatin1String("\n"))) && notes.contains(QString(QLatin1String("Path=") + paths.dataFolder + QLatin1String("\n"))), qPrintable(notes));
        }
    }
};

QTEST_GUILESS_MAIN(UpkeepTest)
#include "tst_upkeep.moc"
