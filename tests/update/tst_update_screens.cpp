// The updater's and uninstall's alerts drawn on the test X server, each kept as a PNG in
// <build>/update-screens/ and checked for its texts and buttons.
#include "AlertBox.h"
#include "TestDisplay.h"
#include "Uninstaller.h"
#include "UpdateAlerts.h"

#include <QDir>
#include <QLabel>
#include <QMessageBox>
#include <QPushButton>

class UpdateScreensTest : public QObject
{
    Q_OBJECT
    QString shots;

private Q_SLOTS:
    void initTestCase()
    {
        BRAVA_REQUIRE_X();
        shots = qEnvironmentVariable("BRAVA_TEST_BINARY_DIR", QDir::currentPath()) + QStringLiteral("/update-screens");
        QDir().mkpath(shots);
    }

    void alerts()
    {
        using U = Uninstaller;
        const QString kVerified = QStringLiteral("/home/agent/.local/share/Brava Recorder/updates/brava-update-0c1d9e2f-5a7b-4c3d-9e8f-1a2b3c4d5e6f/verified/Brava Recorder");
        const QList<std::pair<const char *, Alert>> rows = {
            {"update-up-to-date", UpdateAlerts::upToDate(QStringLiteral("1.9"))}, {"update-available-busy", UpdateAlerts::availableButBusy(QStringLiteral("2.0"))},
            {"update-check-failed", UpdateAlerts::checkFailed()}, {"update-offer", UpdateAlerts::offer(QStringLiteral("2.0"))},
            {"update-verified", UpdateAlerts::verified(QStringLiteral("/home/agent/Apps/Brava Recorder"), kVerified, false)},
            {"update-verified-package", UpdateAlerts::verified(QStringLiteral("/usr/lib/brava-recorder"), kVerified, true)},
            {"update-not-shown", UpdateAlerts::notShown(kVerified)},
            {"update-verified-busy", UpdateAlerts::verifiedButBusy()}, {"update-not-opened", UpdateAlerts::notOpened()},
            {"uninstall", U::confirmation(0, U::AppRemoval::Trash, QString())}, {"uninstall-pending", U::confirmation(3, U::AppRemoval::Trash, QString())},
            {"uninstall-package", U::confirmation(0, U::AppRemoval::Package, QString())},
            {"uninstall-by-hand", U::confirmation(0, U::AppRemoval::ByHand, QStringLiteral("/opt/brava"))}};
        for (const auto &[name, alert] : rows) {
            int answered = -2;
            QMessageBox *box = AlertBox::show(alert, [&answered](int b) { answered = b; });
            QVERIFY(QTest::qWaitForWindowExposed(box));
            QCOMPARE(box->windowTitle() + u'|' + box->text(), QStringLiteral("Brava Recorder|") + alert.message);
            QCOMPARE(box->informativeText(), alert.informative);
            QCOMPARE(box->icon(), alert.critical ? QMessageBox::Critical : QMessageBox::Information);
            QCOMPARE(box->buttons().size(), alert.buttons.size());
            for (QAbstractButton *b : box->buttons())
                QVERIFY2(alert.buttons.contains(b->text()), qPrintable(b->text()));
            QCOMPARE(box->defaultButton()->text(), alert.buttons.at(alert.defaultButton));
            // Wide enough for the title, and the text reads as long lines, not a narrow column.
            const auto *info = box->findChild<QLabel *>(QStringLiteral("qt_msgbox_informativelabel"));
            QVERIFY2(box->width() >= AlertBox::kMinWidth && info && info->width() >= AlertBox::kMinWidth * 2 / 3, name);
            QVERIFY(box->grab().save(shots + QLatin1Char('/') + QLatin1String(name) + QStringLiteral(".png")));
            box->defaultButton()->click();
            QTRY_COMPARE(answered, alert.defaultButton);
        }
    }
};

BRAVA_X_TEST_MAIN(UpdateScreensTest)
#include "tst_update_screens.moc"
