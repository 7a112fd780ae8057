// The sale's screen snapshot on a Wayland session: the desktop portal's Screenshot interface,
// played by the test on a session bus of its own, answering each way it can.
#include "ScreenSnapper.h"
#include "TestSessionBus.h"

#include <QDBusContext>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QImage>
#include <QtTest>

// The portal's side: answers Screenshot with its request object, then that object's Response.
class FakePortal : public QObject, protected QDBusContext
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.portal.Screenshot")
public:
    uint response = 0;
    QString uri;
    QVariantMap options;
public Q_SLOTS:
    QDBusObjectPath Screenshot(const QString &, const QVariantMap &asked)
    {
        options = asked;
        return portalRequest(message(), connection(), asked, response, {{QStringLiteral("uri"), uri}}, this);
    }
};

Q_DECLARE_METATYPE(ScreenSnapper::Outcome)

class ScreenPortalTest : public QObject
{
    Q_OBJECT
    TestSessionBus bus;
    FakePortal portal;
    QTemporaryDir tmp;

    ScreenSnapper::Outcome snap(QByteArray *png = nullptr)
    {
        ScreenSnapper snapper(true);
        QSignalSpy done(&snapper, &ScreenSnapper::done);
        snapper.snap();
        if (!done.wait(5000))
            return ScreenSnapper::Outcome(-1);
        if (png)
            *png = done.first().at(1).toByteArray();
        return done.first().first().value<ScreenSnapper::Outcome>();
    }

private Q_SLOTS:
    void initTestCase()
    {
        if (!bus.start())
            QSKIP("no dbus-daemon on this computer");
        QImage picture(64, 40, QImage::Format_RGB32);
        picture.fill(Qt::darkCyan);
        QVERIFY(picture.save(tmp.filePath(QStringLiteral("screen.jpg"))));
    }

    // No portal, then each answer the portal can give: the picture comes as PNG, whatever the portal wrote.
    void answers()
    {
        QCOMPARE(snap(), ScreenSnapper::Outcome::Failed);
        bus.serve(QStringLiteral("org.freedesktop.portal.Desktop"), QStringLiteral("/org/freedesktop/portal/desktop"), &portal);
        const QString file = QUrl::fromLocalFile(tmp.filePath(QStringLiteral("screen.jpg"))).toString();
        using O = ScreenSnapper::Outcome;
        for (const auto &[response, uri, outcome] : {std::tuple{0u, file, O::Snapped}, {1u, file, O::NotAllowed}, {2u, file, O::Failed},
                                                     {0u, QStringLiteral("https://127.0.0.1/screen.jpg"), O::Failed}, // not a local file
                                                     {0u, QUrl::fromLocalFile(tmp.filePath(QStringLiteral("gone.png"))).toString(), O::Failed},
                                                     {0u, QUrl::fromLocalFile(tmp.path()).toString(), O::Failed}}) { // not a picture
            portal.response = response;
            portal.uri = uri;
            QByteArray png;
            QVERIFY2(snap(&png) == outcome, qPrintable(QString::number(response) + QLatin1Char(' ') + uri));
            QCOMPARE(portal.options.value(QStringLiteral("interactive")), QVariant(false));
            QCOMPARE(png.isEmpty() ? QSize() : QImage::fromData(png, "PNG").size(), outcome == O::Snapped ? QSize(64, 40) : QSize());
        }
    }
};

QTEST_MAIN(ScreenPortalTest)
#include "tst_screen_portal.moc"
