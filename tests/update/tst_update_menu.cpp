// The controller's side: a locked build offers "Check for Updates…" and "Uninstall Brava
// Recorder…", both answer with their alerts, and a build with the test key says so.
#include "AgentFixture.h"
#include "BravaLog.h"
#include "SyntheticAudioBackend.h"
#include "TrayView.h"

#include <QAbstractButton>
#include <QAction>
#include <QApplication>
#include <QDirIterator>
#include <QMenu>
#include <QMessageBox>
#include <QtTest>

class UpdateMenuTest : public QObject
{
    Q_OBJECT
    TestHome home;
    SyntheticAudioBackend audio;

    static QAction *action(AgentFixture &f, const QString &title)
    {
        for (QAction *a : f.app->status().tray()->menu()->actions())
            if (a->text() == title)
                return a;
        return nullptr;
    }
    static QString modalText()
    {
        auto *box = qobject_cast<QMessageBox *>(QApplication::activeModalWidget());
        return box ? box->text() : QString();
    }

private Q_SLOTS:
    void lockedBuildChecksAndUninstalls()
    {
        // A web service without https: every check fails, the automatic one silently.
        AgentFixture f(home, &audio, QStringLiteral("http://127.0.0.1:9"));
        QTRY_VERIFY(home.log().contains(QStringLiteral("update check failed: Update service unavailable")));
        QVERIFY(home.log().contains(QStringLiteral("update key: this build accepts releases signed with the repository's TEST key")));
        QVERIFY(!QApplication::activeModalWidget());
        QVERIFY(action(f, QStringLiteral("Version 2.5 (test key)")));

        QAction *check = action(f, QStringLiteral("Check for Updates…"));
        QVERIFY(check && check->isEnabled());
        check->trigger();
        QTRY_COMPARE(modalText(), QStringLiteral("Couldn’t check for updates"));
        QApplication::activeModalWidget()->close();

        QAction *uninstall = action(f, QStringLiteral("Uninstall Brava Recorder…"));
        QVERIFY(uninstall && uninstall->isEnabled());
        uninstall->trigger();
        QTRY_COMPARE(modalText(), QStringLiteral("Uninstall Brava Recorder?"));
        auto *box = qobject_cast<QMessageBox *>(QApplication::activeModalWidget());
        for (QAbstractButton *b : box->buttons())
            if (b->text() == QStringLiteral("Cancel"))
                b->click();
        QTRY_VERIFY(!QApplication::activeModalWidget());
        QVERIFY(QFile::exists(home.settings().path())); // cancelled: nothing removed

        // Confirmed: the agent stops, and nothing of it is left in the home outside the Trash,
        // not even after it has quit (its last log line has nowhere to go).
        bool quit = false;
        f.app->maintenance().uninstaller().quit = [&quit] { quit = true; };
        uninstall->trigger();
        QTRY_COMPARE(modalText(), QStringLiteral("Uninstall Brava Recorder?"));
        qobject_cast<QMessageBox *>(QApplication::activeModalWidget())->buttons().constFirst()->click();
        QTRY_VERIFY(quit);
        f.app.reset();
        bravaLog(QStringLiteral("quit"));
        QStringList left;
        for (QDirIterator it(home.root(), QDir::Files | QDir::Hidden, QDirIterator::Subdirectories); it.hasNext();)
            if (const QString file = it.next(); !file.contains(QStringLiteral("/Trash/")) && !file.endsWith(QStringLiteral("/Info.ini")))
                left << file;
        QVERIFY2(left.isEmpty(), qPrintable(left.join(u' ')));
    }
};

QTEST_MAIN(UpdateMenuTest)
#include "tst_update_menu.moc"
