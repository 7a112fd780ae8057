// Choosing a sale's file goes to the desktop portal's file chooser, through the platform theme the
// agent asks for at start-up. The theme asks the portal once, when the application starts, so this
// program runs three ways: the test (a bus of its own and the portal on it, then itself inside),
// the portal (--play-portal) and the form under test (--inside).
#include "DisplayPlatform.h"
#include "SaleForm.h"
#include "SaleSubmission.h"
#include "ScreenSnapper.h"
#include "TestSessionBus.h"

#include <QApplication>
#include <QDBusContext>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QLabel>
#include <QNetworkAccessManager>
#include <QPushButton>
#include <QtTest>

// The portal's side: OpenFile answers with its request object, then that object's Response
// carries the file the person chose. What it was asked is written beside that file.
class FakeFileChooser : public QObject, protected QDBusContext
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.portal.FileChooser")
    Q_PROPERTY(uint version READ version)
public:
    uint version() const { return 3; }
public Q_SLOTS:
    QDBusObjectPath OpenFile(const QString &, const QString &title, const QVariantMap &options)
    {
        const QString dir = qEnvironmentVariable("BRAVA_TEST_PORTAL_DIR");
        QFile asked(dir + QStringLiteral("/asked.txt"));
        if (asked.open(QIODevice::WriteOnly))
            asked.write((title + QLatin1Char('\n') + options.keys().join(QLatin1Char(' '))).toUtf8());
        return portalRequest(message(), connection(), options, 0,
                             {{QStringLiteral("uris"), QStringList{QUrl::fromLocalFile(dir + QStringLiteral("/call 1.m4a")).toString()}}}, this);
    }
};

class FilePortalTest : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase()
    {
        // The theme asked the portal for its version at start-up; once the same question asked here
        // has its answer, so has the theme's (one connection, answered in order).
        QDBusMessage get = QDBusMessage::createMethodCall(QStringLiteral("org.freedesktop.portal.Desktop"), QStringLiteral("/org/freedesktop/portal/desktop"),
                                                          QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Get"));
        get << QStringLiteral("org.freedesktop.portal.FileChooser") << QStringLiteral("version");
        QCOMPARE(QDBusConnection::sessionBus().call(get).arguments().value(0).value<QDBusVariant>().variant(), QVariant(3u));
        QCoreApplication::processEvents();
    }
    // The call recording's button opens the portal's chooser with the form's title, and the file
    // chosen there is the one the form takes.
    void theFormChoosesThroughThePortal()
    {
        QNetworkAccessManager net;
        SaleSubmission submission(net);
        ScreenSnapper snapper(false);
        SaleForm form(submission, snapper, [] { return 7; }, [] { return QStringLiteral("127.0.0.1:9"); });
        form.open();
        form.callChoose()->click(); // returns once the portal has answered
        QCOMPARE(form.callLabel()->text(), QStringLiteral("✓ call 1.m4a"));
        QFile asked(qEnvironmentVariable("BRAVA_TEST_PORTAL_DIR") + QStringLiteral("/asked.txt"));
        QVERIFY(asked.open(QIODevice::ReadOnly));
        const QString what = QString::fromUtf8(asked.readAll());
        QVERIFY2(what.startsWith(QStringLiteral("Choose the full call recording (both sides)\n")) && what.contains(QStringLiteral("filters")), qPrintable(what));
    }
};

int main(int argc, char *argv[])
{
    if (argc > 1 && qstrcmp(argv[1], "--play-portal") == 0) {
        QCoreApplication app(argc, argv);
        FakeFileChooser portal;
        if (!QDBusConnection::sessionBus().registerObject(QStringLiteral("/org/freedesktop/portal/desktop"), &portal,
                                                          QDBusConnection::ExportAllSlots | QDBusConnection::ExportAllProperties)
            || !QDBusConnection::sessionBus().registerService(QStringLiteral("org.freedesktop.portal.Desktop")))
            return 1;
        QTextStream(stdout) << "ready" << Qt::endl;
        return app.exec();
    }
    if (argc > 1 && qstrcmp(argv[1], "--inside") == 0) {
        DisplayPlatform::applyAtStartup(); // as the agent's main() does
        QApplication app(argc, argv);
        FilePortalTest test;
        return QTest::qExec(&test, argc - 1, argv + 1);
    }
    QCoreApplication app(argc, argv);
    TestSessionBus bus;
    QTemporaryDir dir;
    const bool theme = QFile::exists(QLibraryInfo::path(QLibraryInfo::PluginsPath) + QStringLiteral("/platformthemes/libqxdgdesktopportal.so"));
    if (!theme || !bus.start()) {
        QTextStream(stdout) << (theme ? "SKIP: no dbus-daemon on this computer" : "SKIP: no portal platform theme (qt6-xdgdesktopportal-platformtheme)") << Qt::endl;
        return 0;
    }
    qputenv("BRAVA_TEST_PORTAL_DIR", QFile::encodeName(dir.path()));
    qunsetenv("QT_QPA_PLATFORMTHEME");
    QProcess portal;
    portal.start(QCoreApplication::applicationFilePath(), {QStringLiteral("--play-portal")});
    if (!portal.waitForReadyRead(10000))
        return 1;
    QProcess inside;
    inside.setProcessChannelMode(QProcess::ForwardedChannels);
    inside.start(QCoreApplication::applicationFilePath(), QStringList{QStringLiteral("--inside")} + QCoreApplication::arguments().mid(1));
    if (!inside.waitForFinished(30000)) {
        // Qt's own dialog waits for a person: the portal was not asked.
        QTextStream(stdout) << "FAIL: the file chooser did not come back within 30 s" << Qt::endl;
        return 1;
    }
    portal.kill();
    portal.waitForFinished();
    return inside.exitStatus() == QProcess::NormalExit ? inside.exitCode() : 1;
}

#include "tst_file_portal.moc"
