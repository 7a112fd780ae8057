#include "HttpStub.h"
#include "SaleForm.h"
#include "SaleSubmission.h"
#include "TestHome.h"
#include "ScreenSnapper.h"

#include <QButtonGroup>
#include <QLabel>
#include <QLineEdit>
#include <QNetworkAccessManager>
#include <QPushButton>
#include <QtTest>

#include <sys/stat.h>

using Answers = QList<HttpStub::Answer>;

// A network manager that notes the time-out of every request made through it.
struct TimedNet : QNetworkAccessManager {
    QList<int> timeouts;
    QNetworkReply *createRequest(Operation op, const QNetworkRequest &request, QIODevice *body) override
    {
        timeouts.append(request.transferTimeout());
        return QNetworkAccessManager::createRequest(op, request, body);
    }
};

// A sale from the form to a control room on loopback: the requests in order with their query
// items, content types and bodies; the message of every failure; and what the agent entered
// surviving each of them.
class SaleSubmissionTest : public QObject
{
    Q_OBJECT
    TestHome home;
    TimedNet net;
    std::unique_ptr<QTemporaryDir> dir; // a new one for each test
    std::unique_ptr<HttpStub> stub;
    std::unique_ptr<SaleSubmission> submission;
    std::unique_ptr<ScreenSnapper> snapper;
    std::unique_ptr<SaleForm> form;
    QString server;
    int agent = 7;

    QString file(const QString &name, const QByteArray &bytes)
    {
        QFile f(dir->filePath(name));
        if (!f.open(QIODevice::WriteOnly) || f.write(bytes) != bytes.size())
            return QString();
        return f.fileName();
    }
    static HttpStub::Answer token(const QByteArray &json = "{\"sale\":\"S 1/x\"}") { return HttpStub::status(200, json); }
    // Fills the form for a sale of this method; the confirmation is a PDF file, the call attached.
    void fill(bool phone)
    {
        form->open();
        form->methodGroup()->button(phone ? 0 : 1)->click();
        form->referralGroup()->button(1)->click();
        form->leadField()->setText(QStringLiteral("  Ann Lee  "));
        form->apvField()->setText(QStringLiteral("$1,250.50"));
        form->setConfirmFile(file(QStringLiteral("confirm.pdf"), "%PDF-1.4 confirmation"));
        form->setCallFile(file(QStringLiteral("Call.M4A"), QByteArray(300000, 'c')));
    }
    // Presses submit and waits for the sale to end; its status line.
    QString submit()
    {
        form->submitButton()->click();
        return QTest::qWaitFor([&] { return !form->isUploading(); }, 20000) ? form->statusLine()->text() : QStringLiteral("(still submitting)");
    }
    QByteArray query(int i) const { return stub->requests.value(i).url.query(QUrl::FullyEncoded).toLatin1(); }

private Q_SLOTS:
    void init()
    {
        cleanup(); // (called again inside the tables: each row from a fresh form)
        dir = std::make_unique<QTemporaryDir>();
        stub = std::make_unique<HttpStub>();
        QVERIFY(stub->listen());
        server = stub->address();
        agent = 7;
        net.timeouts.clear();
        submission = std::make_unique<SaleSubmission>(net);
        snapper = std::make_unique<ScreenSnapper>(false);
        form = std::make_unique<SaleForm>(*submission, *snapper, [this] { return agent; }, [this] { return server; });
        form->chooseFile = [](const QString &, const QStringList &) { return QString(); };
    }
    void cleanup()
    {
        form.reset();
        stub.reset();
    }

    // A computer sale sends the record, then the confirmation file (never the call, though one is
    // attached); a phone sale sends a snapped confirmation, then the call.
    void successfulSale()
    {
        for (const bool phone : {false, true}) {
            init();
            fill(phone);
            const QByteArray png = QByteArray("\x89PNG\r\n\x1a\n", 8) + QByteArray(5000, 'p');
            if (phone)
                form->setConfirmSnapshot(png);
            stub->script({token(), HttpStub::status(200), HttpStub::status(200)});
            QCOMPARE(submit(), QStringLiteral("Saved ✓  Sent to the control room"));
            QVERIFY(form->statusColour() == SaleForm::green() && home.log().endsWith(QStringLiteral(" sale sent to the control room\n")));
            QCOMPARE(stub->requests.size(), phone ? 3 : 2);
            QCOMPARE(net.timeouts, phone ? QList<int>({20000, 120000, 600000}) : QList<int>({20000, 600000})); // record, snapshot, file
            const HttpStub::Request &record = stub->requests[0];
            QVERIFY(record.url.path() == QStringLiteral("/sale") && record.headers.value("content-type") == "application/json");
            QCOMPARE(record.body, QByteArray("{\"id\":7,\"method\":\"") + (phone ? "phone" : "computer") + "\",\"lead\":\"Ann Lee\",\"apv\":1251,\"referral\":\"yes\"}");
            QCOMPARE(stub->requests[1].url.path(), QStringLiteral("/sale-file"));
            QCOMPARE(query(1), phone ? QByteArray("sale=S%201%2Fx&kind=confirm&ext=png") : QByteArray("sale=S%201%2Fx&kind=confirm&ext=pdf"));
            QCOMPARE(stub->requests[1].body, phone ? png : QByteArray("%PDF-1.4 confirmation"));
            for (qsizetype i = 1; i < stub->requests.size(); ++i)
                QCOMPARE(stub->requests[i].headers.value("content-type"), QByteArray("application/octet-stream"));
            if (phone)
                QVERIFY(query(2) == "sale=S%201%2Fx&kind=call&ext=m4a" && stub->requests[2].body == QByteArray(300000, 'c'));
            // The form goes away a moment after the success.
            QVERIFY(form->isVisible());
            QTRY_VERIFY_WITH_TIMEOUT(!form->isVisible(), 5000);
        }
    }

    // Every failure says what failed, in the status line and the log (with why), and keeps what the agent
    // entered, ready for another press. fault: what goes wrong besides the answers; requests: how
    // many arrived (-1: not counted).
    void failure()
    {
        const QString noRoom = QStringLiteral("Couldn't reach the control room"), noConfirm = QStringLiteral("Confirmation upload failed"),
                      noCall = QStringLiteral("Call upload failed");
        const auto ok = HttpStub::status(200);
        const auto path = [this](const char *name) { return dir->filePath(QLatin1String(name)); };
        const QHash<QString, std::function<bool()>> faults{
            {QStringLiteral("closed"), [&] { stub.reset(); return true; }},
            {QStringLiteral("badserver"), [&] { server = QStringLiteral("host/../x:1"); return true; }},
            {QStringLiteral("confirm-gone"), [&] { return QFile::remove(path("confirm.pdf")); }},
            {QStringLiteral("confirm-folder"), [&] { return QFile::remove(path("confirm.pdf")) && QDir().mkdir(path("confirm.pdf")); }},
            {QStringLiteral("call-gone"), [&] { return QFile::remove(path("Call.M4A")); }},
            {QStringLiteral("call-pipe"), [&] { return QFile::remove(path("Call.M4A")) && ::mkfifo(QFile::encodeName(path("Call.M4A")).constData(), 0600) == 0; }},
            {QStringLiteral("cut"), [&] { // every try of the call is cut short
                 form->setCallFile(file(QStringLiteral("Call.M4A"), QByteArray(8 << 20, 'c')));
                 stub->setDefault(HttpStub::cut(256 * 1024));
                 return true;
             }}};
        const struct { const char *name; bool phone; QString fault; Answers answers; QString message; int requests; const char *why; } rows[] = {
            {"record answered 201", false, {}, {HttpStub::status(201, "{\"sale\":\"S\"}")}, noRoom, 1, "answered 201"},
            {"numeric sale token", false, {}, {token("{\"sale\":5}")}, noRoom, 1, "no sale token"},
            {"sale token of 257 characters", false, {}, {token("{\"sale\":\"" + QByteArray(257, 'S') + "\"}")}, noRoom, 1, "no sale token"},
            {"answer is no JSON", false, {}, {token("sale")}, noRoom, 1, "no sale token"},
            {"record connection reset", false, {}, {HttpStub::Answer{HttpStub::Answer::Reset}}, noRoom, -1, ""},
            {"no control room", false, QStringLiteral("closed"), {}, noRoom, 0, "refused"},
            {"address no URL", false, QStringLiteral("badserver"), {}, noRoom, 0, "no usable address"},
            {"confirmation vanished", false, QStringLiteral("confirm-gone"), {token()}, noConfirm, 1, "confirm.pdf: no such file"},
            {"confirmation now a folder", false, QStringLiteral("confirm-folder"), {token()}, noConfirm, 1, "confirm.pdf: not a plain file"},
            {"confirmation answered 500", false, {}, {token(), HttpStub::status(500)}, noConfirm, 2, "answered 500"},
            {"call vanished", true, QStringLiteral("call-gone"), {token(), ok}, noCall, 2, "Call.M4A: no such file"},
            {"call is a pipe", true, QStringLiteral("call-pipe"), {token(), ok}, noCall, 2, "Call.M4A: not a plain file"},
            {"call answered 500", true, {}, {token(), ok, HttpStub::status(500)}, noCall, 3, "answered 500"},
            {"connection closed mid-upload", true, QStringLiteral("cut"), {token(), ok}, noCall, -1, "closed"}};
        for (const auto &[name, phone, fault, answers, message, requests, why] : rows) {
            init();
            fill(phone);
            const QString confirmShown = form->confirmLabel()->text();
            QVERIFY2(fault.isEmpty() || faults.value(fault)(), name);
            if (stub)
                stub->script(answers);
            QVERIFY2(submit() == message && form->statusColour() == SaleForm::errorColour(), name);
            const QString logged = home.log().section(QLatin1Char('\n'), -2, -2); // with what made it fail
            QVERIFY2(logged.contains(QStringLiteral(" sale not sent: ") + message + QStringLiteral(" (")) && logged.contains(QLatin1String(why)), qPrintable(QLatin1String(name) + QLatin1Char(' ') + logged));
            QVERIFY2(requests < 0 || (stub ? int(stub->requests.size()) : 0) == requests, name);
            QVERIFY(form->isVisible() && form->submitButton()->isEnabled());
            QVERIFY(form->leadField()->text() == QStringLiteral("  Ann Lee  ") && form->apvField()->text() == QStringLiteral("$1,250.50"));
            QVERIFY(form->confirmLabel()->text() == confirmShown && form->methodGroup()->checkedId() == (phone ? 0 : 1));
            QTest::keyClick(form->leadField(), Qt::Key_End); // moving around changes nothing
            QCOMPARE(form->statusLine()->text(), message);
            QTest::keyClick(form->leadField(), Qt::Key_A); // a change takes the message away
            QVERIFY(form->statusLine()->text().isEmpty());
        }
    }

    // Presses and reopening while a sale is submitting change nothing; a press after a failure sends a new record.
    void pressWhileSubmittingAndAfterAFailure()
    {
        fill(false);
        stub->script({HttpStub::hang()});
        form->submitButton()->click();
        QTRY_COMPARE(stub->requests.size(), 1);
        QVERIFY(form->isUploading() && !form->submitButton()->isEnabled() && form->statusLine()->text() == QStringLiteral("Submitting…"));
        form->submitTapped();
        form->open(); // the widget's or the menu's "Submit a Sale" meanwhile
        QVERIFY(!submission->submit(server, SaleSubmission::Sale{}));
        QVERIFY(form->isUploading() && form->confirmLabel()->text().startsWith(QStringLiteral("✓")) && form->statusLine()->text() == QStringLiteral("Submitting…"));
        stub->script({HttpStub::status(500)});
        stub->release(token());
        QTRY_COMPARE(form->statusLine()->text(), QStringLiteral("Confirmation upload failed"));
        QCOMPARE(stub->requests.size(), 2); // the record once, its confirmation once
        stub->script({token("{\"sale\":\"" + QByteArray(256, 'S') + "\"}"), HttpStub::status(200)}); // the longest token taken
        QCOMPARE(submit(), QStringLiteral("Saved ✓  Sent to the control room"));
        QVERIFY(stub->requests.size() == 4 && stub->requests[2].url.path() == QStringLiteral("/sale") && query(3) == "sale=" + QByteArray(256, 'S') + "&kind=confirm&ext=pdf");
    }

    void methodAndReopen()
    {
        fill(true); // opened first in the middle of the main screen
        QVERIFY(std::abs(form->geometry().center().x() - QGuiApplication::primaryScreen()->availableGeometry().center().x()) <= 1);
        QCOMPARE(form->callLabel()->text(), QStringLiteral("✓ Call.M4A"));
        form->methodGroup()->button(1)->click();
        QCOMPARE(form->callLabel()->text(), QStringLiteral("Not needed — the call was recorded in the app"));
        QVERIFY(!form->callChoose()->isEnabled());
        form->methodGroup()->button(0)->click();
        QCOMPARE(form->callLabel()->text(), QStringLiteral("✓ Call.M4A"));
        form->setConfirmSnapshot(QByteArray(3000, 'p')); // a snapshot replaces the file; 1024 bytes a KB
        QCOMPARE(form->confirmLabel()->text(), QStringLiteral("✓ Screen snapped (2 KB)"));
        Q_EMIT snapper->done(ScreenSnapper::Outcome::NotAllowed, {});
        QCOMPARE(form->confirmLabel()->text(), QStringLiteral("Allow screenshots in your desktop's privacy settings"));
        Q_EMIT snapper->done(ScreenSnapper::Outcome::Failed, {});
        QCOMPARE(form->confirmLabel()->text(), QStringLiteral("Screen capture failed"));
        // Reopening drops the attachments and keeps what was typed and chosen.
        form->open();
        QVERIFY(form->confirmLabel()->text() == QStringLiteral("No confirmation yet") && form->callLabel()->text() == QStringLiteral("Required for a phone sale"));
        QVERIFY(form->leadField()->text() == QStringLiteral("  Ann Lee  ") && form->referralGroup()->checkedId() == 1);
        form->submitButton()->click();
        QCOMPARE(form->statusLine()->text(), QStringLiteral("Add a confirmation (file or snap)"));
        // A computer sale while nothing is recorded is flagged; the phone method takes the flag away.
        form->recording = [] { return false; };
        form->open();
        form->methodGroup()->button(1)->click();
        QVERIFY(form->statusLine()->text() == SaleForm::notRecordingText() && form->statusColour() == SaleForm::warningColour());
        form->methodGroup()->button(0)->click();
        QCOMPARE(form->statusLine()->text(), QString());
    }
};

QTEST_MAIN(SaleSubmissionTest)
#include "tst_sale_submission.moc"
