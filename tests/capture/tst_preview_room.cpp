#include "AgentParts.h"
#include "AppDelegate.h"
#include "Config.h"
#include "Connection.h"
#include "ControlRoom.h"
#include "FrameDecoder.h"
#include "Recorder.h"
#include "SyntheticAudioBackend.h"
#include "TestHome.h"

#include <QApplication>
#include <QJsonDocument>
#include <QJsonObject>
#include <QtTest>

#include <linux/videodev2.h>

extern "C" {
#include <libavutil/frame.h>
}

namespace {
QSize jpegSize(const QByteArray &jpeg)
{
    FrameDecoder d;
    if (!d.open(V4L2_PIX_FMT_MJPEG, 0, 0))
        return {};
    std::shared_ptr<AVFrame> f = d.decode(reinterpret_cast<const uint8_t *>(jpeg.constData()), size_t(jpeg.size()));
    return f ? QSize(f->width, f->height) : QSize();
}
} // namespace

// Preview frames travel from a synthetic camera through the controller to a control room on
// loopback as binary frames: byte 2, then the JPEG.
class TstPreviewRoom : public QObject
{
    Q_OBJECT
    TestHome home;
    ControlRoom *room = nullptr;
    Connection *conn = nullptr;
    SyntheticAudioBackend *audio = nullptr;
    std::unique_ptr<AgentParts> parts;
    Recorder *rec = nullptr;
    AppDelegate *app = nullptr;

    void send(const QJsonObject &command) { room->sendText(QString::fromUtf8(QJsonDocument(command).toJson())); }

    // The preview frames that arrived, taken out of the room's list.
    QList<QByteArray> takePreviews()
    {
        QList<QByteArray> out;
        for (const QByteArray &b : std::exchange(room->binaries, {}))
            if (!b.isEmpty() && b.at(0) == 2)
                out.append(b.mid(1));
        return out;
    }

    // Preview frames waiting in the room's list.
    int previewCount() const
    {
        int n = 0;
        for (const QByteArray &b : room->binaries)
            n += (!b.isEmpty() && b.at(0) == 2) ? 1 : 0;
        return n;
    }

private slots:
    void init()
    {
        qputenv("BRAVA_FAKE_CAMERAS", "2:640x360@30");
        home.wipe();
        home.useInfo(QString(), QStringLiteral("2.5"));
        room = new ControlRoom(this);
        QVERIFY(room->listen());
        Config::setAgentID(9);
        Config::setAgentName(QStringLiteral("Bo"));
        Config::setServer(room->address());
        Config::setSetupDone(true);
        conn = new Connection(this);
        audio = new SyntheticAudioBackend();
        parts = std::make_unique<AgentParts>();
        rec = new Recorder(*audio, *parts->cameras, Clock::monotonic(), this);
        app = new AppDelegate(*rec, *conn, parts->permissions, this);
        app->applicationDidFinishLaunching();
        QTRY_VERIFY(conn->connected());
    }
    void cleanup()
    {
        delete app;
        delete rec;
        delete audio;
        delete conn;
        delete room;
        for (QWidget *w : QApplication::topLevelWidgets())
            w->deleteLater();
        qunsetenv("BRAVA_FAKE_CAMERAS");
    }

    void previewFramesReachTheControlRoom()
    {
        send({{"type", "preview"}, {"on", true}});
        QTest::qWait(300);
        QVERIFY(takePreviews().isEmpty()); // cameras are off: preview is refused

        send({{"type", "cameras"}, {"on", true}});
        QTRY_VERIFY(rec->camRunning());
        send({{"type", "preview"}, {"on", true}, {"hd", false}});
        QTRY_VERIFY(previewCount() >= 3);
        QElapsedTimer second;
        second.start();
        QTest::qWait(1000);
        const QList<QByteArray> frames = takePreviews();
        const double seconds = double(second.elapsed()) / 1000.0;
        QVERIFY2(frames.size() <= 24 * seconds + 1, qPrintable(QString::number(frames.size())));
        QVERIFY(frames.size() >= 10);
        for (const QByteArray &jpeg : frames)
            QCOMPARE(jpegSize(jpeg), QSize(480, 270));

        send({{"type", "preview"}, {"on", true}, {"hd", true}}); // 640 wide: sent at its own size
        QTest::qWait(200);
        takePreviews();
        QTRY_VERIFY(previewCount() >= 3);
        for (const QByteArray &jpeg : takePreviews())
            QCOMPARE(jpegSize(jpeg), QSize(640, 360));

        send({{"type", "setCam"}, {"uid", "no-such-camera"}});
        QTest::qWait(200);
        takePreviews();
        QTest::qWait(300);
        QVERIFY(takePreviews().isEmpty());

        send({{"type", "setCam"}});
        QTRY_VERIFY(previewCount() >= 1);
        send({{"type", "cameras"}, {"on", false}});
        QTRY_VERIFY(!rec->camRunning());
        QTest::qWait(200);
        takePreviews();
        QTest::qWait(300);
        QVERIFY(takePreviews().isEmpty());
    }
};

QTEST_MAIN(TstPreviewRoom)
#include "tst_preview_room.moc"
