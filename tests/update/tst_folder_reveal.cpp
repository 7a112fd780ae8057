// Showing a verified folder: the desktop's file manager over a private session bus, else the
// folder opened by the desktop's handler.
#include "FolderReveal.h"
#include "TestSessionBus.h"

#include <QDBusConnectionInterface>
#include <QDesktopServices>
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

// Stands in for the desktop's default handler of file URLs.
class FolderOpener : public QObject
{
    Q_OBJECT
public:
    QList<QUrl> opened;
public Q_SLOTS:
    void open(const QUrl &url) { opened += url; }
};

class FolderRevealTest : public QObject
{
    Q_OBJECT
    TestSessionBus bus;
    QTemporaryDir tmp;
    FakeFileManager manager;
    FolderOpener opener;
    // A folder name that needs encoding in a URI.
    const QString folder = tmp.path() + QStringLiteral("/Brava Recorder 2.1 #5 100%");

private Q_SLOTS:
    void initTestCase()
    {
        if (!bus.start())
            QSKIP("no dbus-daemon on this computer");
        QVERIFY(QDir().mkpath(folder));
        QDesktopServices::setUrlHandler(QStringLiteral("file"), &opener, "open");
        QCOMPARE(FolderReveal::kTimeoutMs, 5000); // a slow file manager still gets its time
    }
    void cleanupTestCase() { QDesktopServices::unsetUrlHandler(QStringLiteral("file")); }

    // With a file manager on the bus the folder is selected in it, its URI fully encoded; with
    // none answering, the folder (for a file, the folder holding it) opens instead.
    void theFileManagerShowsTheFolderElseItOpens()
    {
        QDBusConnection own = bus.serve(QStringLiteral("org.freedesktop.FileManager1"), QStringLiteral("/org/freedesktop/FileManager1"), &manager);
        FolderReveal::show(folder);
        QTRY_COMPARE(manager.shown, QStringList({QUrl::fromLocalFile(folder).toString(QUrl::FullyEncoded), QString()}));
        QVERIFY(manager.shown.first().endsWith(QStringLiteral("/Brava%20Recorder%202.1%20%235%20100%25")));
        QTest::qWait(200); // the answer has come: nothing else opens
        QVERIFY(opener.opened.isEmpty());
        QVERIFY(own.unregisterService(QStringLiteral("org.freedesktop.FileManager1")));
        QTRY_VERIFY(!QDBusConnection::sessionBus().interface()->isServiceRegistered(QStringLiteral("org.freedesktop.FileManager1")));
        FolderReveal::show(folder);
        FolderReveal::show(folder + QStringLiteral("/brava-recorder"));
        QTRY_COMPARE(opener.opened, QList<QUrl>({QUrl::fromLocalFile(folder), QUrl::fromLocalFile(folder)}));
    }
};

QTEST_MAIN(FolderRevealTest)
#include "tst_folder_reveal.moc"
