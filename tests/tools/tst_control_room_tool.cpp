#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QWebSocket>
#include <QtTest>

// The reference control room as a person drives it: commands typed (or pasted) on its standard
// input reach a connected agent in order, one message per line.
class ControlRoomToolTest : public QObject
{
    Q_OBJECT

private slots:
    void pastedLinesAllReachTheAgent()
    {
        const QString exe = qEnvironmentVariable("BRAVA_TEST_BINARY_DIR") + QStringLiteral("/brava-control-room");
        QTemporaryDir uploads;
        QProcess room;
        room.start(exe, {QStringLiteral("0"), uploads.path()});
        QVERIFY(room.waitForStarted());
        QByteArray said;
        connect(&room, &QProcess::readyReadStandardOutput, this, [&] { said += room.readAllStandardOutput(); });
        QTRY_VERIFY_WITH_TIMEOUT(said.contains('\n'), 10000);
        const QRegularExpressionMatch port = QRegularExpression(QStringLiteral("port (\\d+)")).match(QString::fromUtf8(said));
        QVERIFY2(port.hasMatch(), said.constData());

        QWebSocket agent;
        QStringList types;
        connect(&agent, &QWebSocket::textMessageReceived, this, [&](const QString &text) {
            types << QJsonDocument::fromJson(text.toUtf8()).object().value(QStringLiteral("type")).toString();
        });
        agent.open(QUrl(QStringLiteral("ws://127.0.0.1:%1/agent?id=5&os=linux&v=1.0&name=Tool").arg(port.captured(1))));
        QTRY_COMPARE(agent.state(), QAbstractSocket::ConnectedState);
        QTRY_VERIFY(said.contains("connected"));

        // Three commands in one write, the last one without its line end until later.
        room.write("cameras on\nstart s9\nstop");
        QTRY_COMPARE(types, QStringList({"cameras", "start"}));
        room.write("\nbogus\n");
        QTRY_COMPARE(types, QStringList({"cameras", "start", "stop"}));
        QTRY_VERIFY(said.contains("unknown command"));

        room.write("quit\n");
        QVERIFY(room.waitForFinished(5000));
        QCOMPARE(room.exitCode(), 0);
    }
};

QTEST_GUILESS_MAIN(ControlRoomToolTest)
#include "tst_control_room_tool.moc"
