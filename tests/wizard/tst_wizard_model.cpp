#include "HttpStub.h"
#include "TestHome.h"
#include "WizardParts.h"

#include <QtTest>

// The wizard model's rules over real parts: settings in a throw-away home, a recorder on a
// synthetic sound system, and the event web service as an HTTP server on loopback.
class WizardModelTest : public QObject
{
    Q_OBJECT
    TestHome home;
    std::unique_ptr<WizardParts> p;
    std::unique_ptr<WizardModel> m;
    HttpStub web;

    void make()
    {
        m.reset();
        m = std::make_unique<WizardModel>(p->parts());
        m->verifyTimeoutMs = 500;
    }

private Q_SLOTS:
    void initTestCase() { QVERIFY(web.listen()); }
    void init()
    {
        home.wipe();
        home.useInfo(QString());
        web.requests.clear();
        p = std::make_unique<WizardParts>(home);
        make();
    }
    void cleanup()
    {
        m.reset();
        p.reset();
    }

    void agentNumber_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<int>("id"); // 0: none
        QTest::newRow("zero") << "0" << 0;
        QTest::newRow("above") << "111" << 0;
        QTest::newRow("letters") << "abc" << 0;
        QTest::newRow("empty") << "" << 0;
        QTest::newRow("leading blank") << " 7" << 0;
        QTest::newRow("negative") << "-7" << 0;
        QTest::newRow("highest") << "110" << 110;
        QTest::newRow("plus") << "+7" << 7;
        QTest::newRow("lowest") << "1" << 1;
        QTest::newRow("trailing text") << "7a" << 0;
        QTest::newRow("overflow") << "99999999999999999999" << 0;
    }
    void agentNumber()
    {
        QFETCH(QString, text);
        QFETCH(int, id);
        QCOMPARE(WizardModel::parseAgentID(text).value_or(0), id);
    }

    // Where the agent is and how far it got survive the model (and the process).
    void stepsAndFurthestPersist()
    {
        QCOMPARE(m->step(), 0);
        m->back();
        QCOMPARE(m->step(), 0);
        m->setStep(3);
        QCOMPARE(m->furthest(), 3);
        m->go(5);
        QCOMPARE(m->step(), 3);
        m->go(2);
        QVERIFY(m->step() == 2 && m->furthest() == 3);
        m->back();
        make();
        QVERIFY(m->step() == 1 && m->furthest() == 3);
        m->go(3);
        QCOMPARE(home.settings().wizardStep(), 3);
    }

    void heardThresholds_data()
    {
        QTest::addColumn<bool>("testing");
        QTest::addColumn<float>("mic");
        QTest::addColumn<float>("sys");
        QTest::addColumn<bool>("micHeard");
        QTest::addColumn<bool>("sysHeard");
        QTest::newRow("at both thresholds") << true << 0.01f << 0.003f << false << false;
        QTest::newRow("just above") << true << 0.011f << 0.0031f << true << true;
        QTest::newRow("outside a test") << false << 0.5f << 0.5f << false << false;
    }
    void heardThresholds()
    {
        QFETCH(bool, testing);
        QFETCH(float, mic);
        QFETCH(float, sys);
        if (testing)
            m->startTest();
        m->tick(mic, sys, true);
        QFETCH(bool, micHeard);
        QFETCH(bool, sysHeard);
        QCOMPARE(m->micHeard(), micHeard);
        QCOMPARE(m->sysHeard(), sysHeard);
        m->tick(0, 0, true); // latched
        QCOMPARE(m->micHeard(), micHeard);
    }

    // The sound check's run ends when the agent leaves the camera step, not the test step.
    void leavingStepsAndTheSoundCheck_data()
    {
        QTest::addColumn<int>("from");
        QTest::addColumn<int>("to");
        QTest::addColumn<bool>("stillTesting");
        QTest::newRow("camera to test") << 4 << 5 << false;
        QTest::newRow("camera back") << 4 << 3 << false;
        QTest::newRow("test to done") << 5 << 6 << true;
        QTest::newRow("test back") << 5 << 4 << true;
    }
    void leavingStepsAndTheSoundCheck()
    {
        QFETCH(int, from);
        QFETCH(int, to);
        QFETCH(bool, stillTesting);
        m->setStep(from);
        m->startTest();
        QTRY_VERIFY(p->rec.running());
        m->startTest(); // a second start while one runs does nothing
        m->setStep(to);
        QCOMPARE(m->testing(), stillTesting);
        QTRY_COMPARE(p->rec.running(), stillTesting);
    }

    void verifyAnswers_data()
    {
        QTest::addColumn<QByteArray>("answer"); // "hang": no answer in time; "": no preset room
        QTest::addColumn<QString>("error");     // "": saved and moved on
        QTest::addColumn<QString>("name");
        QTest::newRow("no preset room: saved unasked") << QByteArray() << "" << "Ana Lee";
        QTest::newRow("ok, list spelling wins") << QByteArray("{\"ok\":true,\"name\":\"Ana  LEE\"}") << "" << "Ana  LEE";
        QTest::newRow("ok, blank name") << QByteArray("{\"ok\":true,\"name\":\"   \"}") << "" << "Ana Lee";
        QTest::newRow("ok as text is no ok") << QByteArray("{\"ok\":\"true\"}") << WizardModel::mismatchText() << "Ana Lee";
        QTest::newRow("refused with message") << QByteArray("{\"ok\":false,\"message\":\"Number 7 is Bo's\"}") << "Number 7 is Bo's" << "Ana Lee";
        QTest::newRow("refused without message") << QByteArray("{\"ok\":false}") << WizardModel::mismatchText() << "Ana Lee";
        QTest::newRow("long message is cut") << ("{\"message\":\"" + QByteArray(5000, 'x') + "\"}") << QString(200, QLatin1Char('x')) << "Ana Lee";
        QTest::newRow("not JSON") << QByteArray("<html>busy</html>") << WizardModel::unreachableText() << "Ana Lee";
        QTest::newRow("JSON array") << QByteArray("[true]") << WizardModel::unreachableText() << "Ana Lee";
        QTest::newRow("time-out") << QByteArray("hang") << WizardModel::unreachableText() << "Ana Lee";
    }
    void verifyAnswers()
    {
        QFETCH(QByteArray, answer);
        QFETCH(QString, error);
        QFETCH(QString, name);
        if (!answer.isEmpty()) // a build with a preset control room and this web service
            home.useInfo("127.0.0.1:1", "2.5", "http://" + web.address());
        make();
        m->setStep(1);
        for (const auto &[name, number] : {std::pair{"Ana", "0"}, {" \t", "17"}}) { // an incomplete identity does nothing
            m->setNameText(QString::fromUtf8(name));
            m->setAgentText(QString::fromUtf8(number));
            m->verifyAndSave();
            QVERIFY(m->step() == 1 && !m->verifying());
        }
        m->setNameText("Ana Lee");
        m->setAgentText("+17");
        // The status code does not matter; only the body does.
        if (!answer.isEmpty())
            web.script({answer == "hang" ? HttpStub::hang() : HttpStub::status(500, answer)});
        m->verifyAndSave();
        QCOMPARE(m->verifying(), !answer.isEmpty());
        m->verifyAndSave(); // no second request while one is in flight
        QTRY_VERIFY(!m->verifying());
        QCOMPARE(m->verifyErrorText(), error);
        QCOMPARE(m->nameText(), name);
        QCOMPARE(m->step(), error.isEmpty() ? 2 : 1);
        QCOMPARE(home.settings().agentID(), error.isEmpty() ? 17 : 0);
        QCOMPARE(web.requests.size(), answer.isEmpty() ? 0 : 1);
        if (answer.isEmpty())
            return;
        const HttpStub::Request &r = web.requests.first();
        QVERIFY(r.method == "POST" && r.url.path() == QLatin1String(WizardModel::kVerifyPath));
        QCOMPARE(r.headers.value("content-type"), QByteArray("application/json"));
        const QJsonObject sent = QJsonDocument::fromJson(r.body).object();
        QVERIFY(sent.value("number") == QJsonValue(17) && sent.value("name") == QJsonValue("Ana Lee") && sent.value("token").isString());
        web.release(HttpStub::status(200));
    }
};

QTEST_MAIN(WizardModelTest)
#include "tst_wizard_model.moc"
