// Showing a verified folder: the desktop's file manager over a private session bus, else the
// folder opened by the desktop's opener, else the caller told (and the reason logged).
#include "FolderReveal.h"
#include "TestHome.h"
#include "TestSessionBus.h"

#include <QDBusConnectionInterface>
#include <QtTest>

// The file manager's side of org.freedesktop.FileManager1, answering on the test's bus.
class FakeFileManager : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.FileManager1")
public:
    QStringList shown;
public Q_SLOTS:
    void ShowItems(const QStringList &uris, const QString &startupId) { shown += uris, shown += startupId; }
};

class FolderRevealTest : public QObject
{
    Q_OBJECT
    TestHome home;
    TestSessionBus bus;
    QTemporaryDir tmp;
    FakeFileManager manager;
    // A folder name that needs encoding in a URI.
    const QString folder = tmp.path() + QStringLiteral("/Brava Recorder 2.1 #5 100%");
    // Stand-ins for xdg-open: one that opens (notes its argument), one that finds no way to.
    const QString opens = tmp.path() + QStringLiteral("/opens"), cannot = tmp.path() + QStringLiteral("/cannot");

    QStringList opened() const
    {
        QFile f(tmp.path() + QStringLiteral("/opened"));
        return f.open(QIODevice::ReadOnly) ? QString::fromUtf8(f.readAll()).split(u'\n', Qt::SkipEmptyParts) : QStringList();
    }

private Q_SLOTS:
    void initTestCase()
    {
        if (!bus.start())
            QSKIP("no dbus-daemon on this computer");
        QVERIFY(QDir().mkpath(folder));
        for (const auto &[path, script] : {std::pair(opens, QByteArray("#!/bin/sh\necho \"$1\" >> \"$(dirname \"$0\")/opened\"\n")),
                                           std::pair(cannot, QByteArray("#!/bin/sh\necho \"xdg-open: no method available for opening '$1'\" >&2\nexit 3\n"))}) {
            QFile f(path);
            QVERIFY(f.open(QIODevice::WriteOnly) && f.write(script) == script.size());
            f.setPermissions(QFile::ReadOwner | QFile::ExeOwner);
        }
        QCOMPARE(FolderReveal::kTimeoutMs, 5000); // a slow file manager still gets its time
    }

    // With a file manager on the bus the folder is selected in it, its URI fully encoded; with
    // none answering, the folder (for a file, the folder holding it) opens instead; when the opener
    // fails or is missing, the caller hears of it and the log says why.
    void theFileManagerShowsTheFolderElseItOpens()
    {
        int failed = 0;
        const auto fail = [&failed] { ++failed; };
        QDBusConnection own = bus.serve(QStringLiteral("org.freedesktop.FileManager1"), QStringLiteral("/org/freedesktop/FileManager1"), &manager);
        FolderReveal::show(folder, fail, opens);
        QTRY_COMPARE(manager.shown, QStringList({QUrl::fromLocalFile(folder).toString(QUrl::FullyEncoded), QString()}));
        QVERIFY(manager.shown.first().endsWith(QStringLiteral("/Brava%20Recorder%202.1%20%235%20100%25")));
        QTest::qWait(200); // the answer has come: nothing else opens
        QVERIFY(opened().isEmpty());
        QVERIFY(own.unregisterService(QStringLiteral("org.freedesktop.FileManager1")));
        QTRY_VERIFY(!QDBusConnection::sessionBus().interface()->isServiceRegistered(QStringLiteral("org.freedesktop.FileManager1")));
        FolderReveal::show(folder, fail, opens);
        FolderReveal::show(folder + QStringLiteral("/brava-recorder"), fail, opens);
        QTRY_COMPARE(opened(), QStringList({folder, folder}));
        QCOMPARE(failed, 0);
        FolderReveal::show(folder, fail, cannot);
        QTRY_COMPARE(failed, 1);
        QVERIFY2(home.log().contains(QStringLiteral("cannot show the folder ") + folder + QStringLiteral(" (") + cannot + QStringLiteral(": exit 3, xdg-open: no method available for opening '")
                                     + folder + QStringLiteral("')")), qPrintable(home.log()));
        FolderReveal::show(folder, fail, tmp.path() + QStringLiteral("/missing"));
        QTRY_COMPARE(failed, 2);
        QCOMPARE(home.log().count(QStringLiteral("cannot show the folder")), 2);
    }
};

QTEST_MAIN(FolderRevealTest)
#include "tst_folder_reveal.moc"
