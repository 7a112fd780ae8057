#include "BravaLog.h"
#include "CameraManager.h"
#include "CameraTexts.h"
#include "Config.h"
#include "FrameDecoder.h"
#include "SerialQueue.h"
#include "SyncGate.h"
#include "SyntheticCameraBackend.h"
#include "TestHome.h"
#include "TestPattern.h"
#include "tst_video_probe.h"

#include <QFileInfo>
#include <QtTest>

#include <atomic>
#include <ctime>
#include <linux/videodev2.h>
#include <mutex>

extern "C" {
#include <libavutil/frame.h>
}

namespace {

int64_t nowNs()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

// The recorder's side of the manager, as plain flags, with the real start sync.
struct Owner {
    std::atomic<bool> allowed{true}, enabled{true}, running{false}, previewing{false}, hd{false};
    std::atomic<CameraAccess::Status> access{CameraAccess::Status::Authorized};
    std::mutex mutex;
    QString previewUID;
    QStringList done;
    QList<QByteArray> jpegs;
    SyncGate gate;
    SerialQueue videoQ{QStringLiteral("test.video")};

    CameraManager::Hooks hooks()
    {
        CameraManager::Hooks h;
        h.allowed = [this] { return allowed.load(); };
        h.enabled = [this] { return enabled.load(); };
        h.running = [this] { return running.load(); };
        h.gateCam = [this](MediaTime t) { return gate.pass(QStringLiteral("cam"), t); };
        h.previewing = [this] { return previewing.load(); };
        h.previewHd = [this] { return hd.load(); };
        h.previewCamUID = [this] {
            std::lock_guard lock(mutex);
            return previewUID;
        };
        h.savedCamUID = [] { return Config::camUID(); };
        h.access = [this] { return access.load(); };
        return h;
    }
    void wire(CameraManager &m)
    {
        m.onSegmentDone = [this](const QString &p) {
            std::lock_guard lock(mutex);
            done.append(p);
        };
        m.onPreviewFrame = [this](const QByteArray &j) {
            std::lock_guard lock(mutex);
            jpegs.append(j);
        };
        gate.onLock = [&m](MediaTime t0) { m.lockAt(t0); };
    }
    QStringList doneNames()
    {
        std::lock_guard lock(mutex);
        QStringList names;
        for (const QString &p : done)
            names << QFileInfo(p).fileName();
        names.sort();
        return names;
    }
    QList<QByteArray> takeJpegs()
    {
        std::lock_guard lock(mutex);
        return std::exchange(jpegs, {});
    }
    void setPreviewUID(const QString &uid)
    {
        std::lock_guard lock(mutex);
        previewUID = uid;
    }
};

// The camera a preview picture came from (synthetic cameras count from n × 10,000,000).
int cameraOf(const QByteArray &jpeg)
{
    FrameDecoder d;
    if (!d.open(V4L2_PIX_FMT_MJPEG, 0, 0))
        return -1;
    std::shared_ptr<AVFrame> f = d.decode(reinterpret_cast<const uint8_t *>(jpeg.constData()), size_t(jpeg.size()));
    if (!f)
        return -1;
    const int64_t counter = TestPattern::readCounter(*f);
    return counter < 0 ? -1 : int(counter / SyntheticCameraBackend::kCounterStep);
}

} // namespace

class TstCameraManager : public QObject
{
    Q_OBJECT
    TestHome home;

private slots:
    void init() { home.wipe(); }

    // Five cameras: the main one plus cam2–cam4, the fifth ignored. A take waits for the main
    // camera in the start sync, and every camera writes its own track from the common start.
    void fiveCamerasRecordFourTracksFromOneStart()
    {
        SyntheticCameraBackend backend({5, {320, 180}, 30});
        Owner owner;
        CameraManager m(owner.videoQ, owner.hooks(), backend);
        owner.wire(m);
        owner.videoQ.sync([&] { m.build(); });
        QVERIFY(m.camRunning());
        QCOMPARE(m.primaryUID(), QString("synthetic-1"));
        QCOMPARE(m.extraTracks(), QStringList({"cam2", "cam3", "cam4"}));
        const QString log = home.log();
        QVERIFY(log.contains("camera: Synthetic Camera 1 running=true"));
        QVERIFY(log.contains("extra camera cam2: Synthetic Camera 2 running=true"));
        QVERIFY(log.contains("extra camera cam4: Synthetic Camera 4 running=true"));
        QVERIFY(!log.contains("Synthetic Camera 5"));

        // Audio has started; the take's start waits for the camera's first frame.
        owner.gate.reset(true);
        owner.videoQ.sync([&] { m.beginTake(QStringLiteral("S5"), 11); });
        const int64_t audioStart = nowNs();
        QVERIFY(!owner.gate.pass("mic", MediaTime::fromNanoseconds(audioStart)));
        QVERIFY(!owner.gate.pass("sys", MediaTime::fromNanoseconds(audioStart)));
        owner.running = true;
        QTRY_VERIFY_WITH_TIMEOUT(owner.gate.t0().has_value(), 3000);
        // The start is the latest first time of mic, sys and cam. On a loaded machine the camera's
        // first gated frame can have been captured just before the audio stamps above.
        const MediaTime audio = MediaTime::fromNanoseconds(audioStart);
        const MediaTime cam = *owner.gate.seen("cam");
        QCOMPARE(*owner.gate.t0(), cam > audio ? cam : audio);
        QVERIFY(home.log().contains("sync: all tracks locked to one start"));
        QTest::qWait(700);
        owner.running = false;
        owner.videoQ.sync([&] { m.endTake(); });
        QCOMPARE(owner.doneNames(), QStringList({"cam2_11_00000_final.mp4", "cam3_11_00000_final.mp4",
                                                 "cam4_11_00000_final.mp4", "cam_11_00000_final.mp4"}));
        for (const QString &name : owner.doneNames()) {
            const QJsonObject s = VideoProbe::stream(Config::dir("writing") + "/S5/" + name);
            QCOMPARE(s.value("codec_name").toString(), QString("h264"));
            QCOMPARE(s.value("width").toInt(), 320);
            QVERIFY(s.value("nb_read_frames").toString().toInt() >= 10);
        }
        // With cameras enabled the sessions outlive the take.
        QVERIFY(m.camRunning());
        QCOMPARE(m.extraTracks().size(), 3);
    }

    // Switching cameras off mid-take ends "cam" with a final file and stops every camera.
    void shuttingMidTakeFinishesTheCameraTrack()
    {
        SyntheticCameraBackend backend({2, {320, 180}, 30});
        Owner owner;
        CameraManager m(owner.videoQ, owner.hooks(), backend);
        owner.wire(m);
        owner.videoQ.sync([&] { m.build(); });
        owner.gate.reset(false);
        owner.videoQ.sync([&] { m.beginTake(QStringLiteral("OFF"), 12); });
        owner.running = true;
        owner.gate.pass("mic", MediaTime::fromNanoseconds(nowNs()));
        owner.gate.pass("sys", MediaTime::fromNanoseconds(nowNs()));
        QTRY_VERIFY(owner.gate.t0().has_value());
        QTest::qWait(500);
        owner.enabled = false;
        owner.allowed = false;
        owner.videoQ.sync([&] { m.shut(); });
        QVERIFY(!m.camRunning());
        QVERIFY(m.extraTracks().isEmpty());
        QCOMPARE(owner.doneNames(), QStringList({"cam2_12_00000_final.mp4", "cam_12_00000_final.mp4"}));
        const QJsonObject s = VideoProbe::stream(Config::dir("writing") + "/OFF/cam_12_00000_final.mp4");
        QVERIFY(s.value("nb_read_frames").toString().toInt() >= 5);
        // Building again while not allowed does nothing.
        owner.videoQ.sync([&] { m.build(); });
        QVERIFY(!m.camRunning());
    }

    // An extra camera opened after the lock takes the common start at once.
    void extraCameraJoiningLateTakesTheStart()
    {
        SyntheticCameraBackend backend({2, {320, 180}, 30});
        Owner owner;
        owner.enabled = false; // the setup wizard's camera: main only
        CameraManager m(owner.videoQ, owner.hooks(), backend);
        owner.wire(m);
        owner.videoQ.sync([&] { m.build(); });
        QVERIFY(m.extraTracks().isEmpty());
        owner.gate.reset(true);
        owner.videoQ.sync([&] { m.beginTake(QStringLiteral("LATE"), 13); });
        owner.running = true;
        owner.gate.pass("mic", MediaTime::fromNanoseconds(nowNs()));
        owner.gate.pass("sys", MediaTime::fromNanoseconds(nowNs()));
        QTRY_VERIFY(owner.gate.t0().has_value());
        owner.enabled = true;
        owner.videoQ.sync([&] { m.build(); }); // a session exists: nothing happens
        QVERIFY(m.extraTracks().isEmpty());
        owner.videoQ.sync([&] { m.restart(); });
        QCOMPARE(m.extraTracks(), QStringList({"cam2"}));
        QTest::qWait(400);
        // Opened again within the take: the track goes on numbering, nothing is overwritten.
        owner.videoQ.sync([&] { m.restart(); });
        QTest::qWait(400);
        owner.running = false;
        owner.videoQ.sync([&] { m.endTake(); });
        const QStringList names = owner.doneNames();
        QVERIFY(names.contains("cam2_13_00000_final.mp4"));
        QVERIFY(names.contains("cam2_13_00001_final.mp4"));
        for (const char *name : {"cam2_13_00000_final.mp4", "cam2_13_00001_final.mp4"}) {
            const QJsonObject s = VideoProbe::stream(Config::dir("writing") + "/LATE/" + name);
            QVERIFY(s.value("nb_read_frames").toString().toInt() >= 5);
        }
    }

    void failuresAreNamed()
    {
        Owner owner;
        {
            SyntheticCameraBackend none({0, {320, 180}, 30});
            CameraManager m(owner.videoQ, owner.hooks(), none);
            owner.videoQ.sync([&] { m.build(); });
            QCOMPARE(m.camError(), std::optional<QString>(CameraTexts::noneFound()));
            QVERIFY(!m.camRunning());
        }
        {
            SyntheticCameraBackend one({1, {320, 180}, 30});
            owner.access = CameraAccess::Status::Denied;
            CameraManager m(owner.videoQ, owner.hooks(), one);
            owner.videoQ.sync([&] { m.build(); });
            QCOMPARE(m.camError(), std::optional<QString>(CameraTexts::notAllowed()));
            QVERIFY(home.log().contains("camera auth=2"));
            QVERIFY(!m.camRunning());
        }
    }

    // A camera that stops delivering (unplugged) shows as not running and is opened again by
    // the next build; one that never starts is named.
    void deadCameraIsOpenedAgain()
    {
        struct Stream : CameraStream {
            bool alive;
            explicit Stream(bool a) : alive(a) {}
            QString uid() const override { return "dead-1"; }
            QString name() const override { return "Flaky Cam"; }
            QSize size() const override { return {320, 180}; }
            bool running() const override { return alive; }
        };
        struct Flaky : CameraBackend {
            int opens = 0;
            QList<Device> list() override { return {Device{"dead-1", "Flaky Cam", true, true}}; }
            CameraOpen open(const QString &, QSize, FrameSink) override
            {
                ++opens;
                return {std::make_unique<Stream>(opens > 1), QString()};
            }
        } backend;
        Owner owner;
        CameraManager m(owner.videoQ, owner.hooks(), backend);
        owner.videoQ.sync([&] { m.build(); });
        QVERIFY(!m.camRunning());
        QCOMPARE(m.camError(), std::optional<QString>(CameraTexts::failedToStart()));
        QVERIFY(home.log().contains("camera: Flaky Cam running=false"));
        owner.videoQ.sync([&] { m.build(); });
        QCOMPARE(backend.opens, 2);
        QVERIFY(m.camRunning());
        QVERIFY(!m.camError());
        owner.videoQ.sync([&] { m.build(); }); // running: nothing happens
        QCOMPARE(backend.opens, 2);
    }

    // The main camera unplugged while another camera runs as an extra one: the next build takes
    // that camera as the main one (a device opens only once, as with V4L2) instead of reporting
    // it busy.
    void unpluggedMainCameraHandsOverToAnExtraOne()
    {
        struct Stream : CameraStream {
            QSet<QString> &inUse;
            const QSet<QString> &unplugged;
            const QString id;
            Stream(QSet<QString> &u, const QSet<QString> &gone, QString i) : inUse(u), unplugged(gone), id(std::move(i)) {}
            ~Stream() override { inUse.remove(id); }
            QString uid() const override { return id; }
            QString name() const override { return id; }
            QSize size() const override { return {320, 180}; }
            bool running() const override { return !unplugged.contains(id); }
        };
        struct Backend : CameraBackend {
            QSet<QString> inUse, unplugged;
            QList<Device> list() override
            {
                QList<Device> all;
                for (const QString &id : {QStringLiteral("cam-a"), QStringLiteral("cam-b")})
                    if (!unplugged.contains(id))
                        all.append(Device{id, id, false, false});
                return all;
            }
            CameraOpen open(const QString &uid, QSize, FrameSink) override
            {
                if (inUse.contains(uid))
                    return {nullptr, CameraTexts::busy()};
                inUse.insert(uid);
                return {std::make_unique<Stream>(inUse, unplugged, uid), QString()};
            }
        } backend;
        Config::setCamUID(QStringLiteral("cam-a"));
        Owner owner;
        CameraManager m(owner.videoQ, owner.hooks(), backend);
        owner.videoQ.sync([&] { m.build(); });
        QVERIFY(m.camRunning());
        QCOMPARE(backend.inUse, QSet<QString>({"cam-a", "cam-b"}));

        backend.unplugged.insert(QStringLiteral("cam-a"));
        owner.videoQ.sync([&] { m.build(); });
        QVERIFY(m.camRunning());
        QVERIFY(!m.camError());
        QCOMPARE(backend.inUse, QSet<QString>({"cam-b"}));
    }

    // While cameras are allowed a missing or stopped camera is tried again by itself, and a
    // problem that stays is logged once.
    void camerasAreRetriedWithoutFlooding()
    {
        struct Stream : CameraStream {
            QString uid() const override { return "flaky"; }
            QString name() const override { return "Flaky Cam"; }
            QSize size() const override { return {320, 180}; }
            bool running() const override { return true; }
        };
        struct Late : CameraBackend {
            std::atomic<bool> plugged{false};
            QList<Device> list() override
            {
                return plugged ? QList<Device>{Device{"flaky", "Flaky Cam", false, false}} : QList<Device>{};
            }
            CameraOpen open(const QString &, QSize, FrameSink) override { return {std::make_unique<Stream>(), QString()}; }
        } backend;
        Owner owner;
        owner.access = CameraAccess::Status::Denied;
        CameraManager m(owner.videoQ, owner.hooks(), backend, Clock::monotonic(), 50);
        owner.videoQ.sync([&] { m.build(); });
        QTest::qWait(400); // several retries
        QCOMPARE(home.log().count("camera auth=2"), 1);
        owner.access = CameraAccess::Status::Authorized;
        QTRY_COMPARE(m.camError(), std::optional<QString>(CameraTexts::noneFound()));
        QVERIFY(!m.camRunning());
        backend.plugged = true; // plugged in: picked up without anyone asking
        QTRY_VERIFY(m.camRunning());
        QVERIFY(!m.camError());
        QCOMPARE(home.log().count("camera: Flaky Cam running=true"), 1);
        owner.allowed = false;
    }

    void savedCameraIsPickedFirst()
    {
        SyntheticCameraBackend backend({3, {320, 180}, 30});
        QCOMPARE(CameraManager::pick(backend, QString())->uid, QString("synthetic-1"));
        QCOMPARE(CameraManager::pick(backend, "synthetic-3")->uid, QString("synthetic-3"));
        QCOMPARE(CameraManager::pick(backend, "unplugged")->uid, QString("synthetic-1"));
        SyntheticCameraBackend none({0, {320, 180}, 30});
        QVERIFY(!CameraManager::pick(none, QString()));
    }

    // Preview follows previewCamUID: the main camera by default, then only the chosen extra.
    void previewFollowsTheChosenCamera()
    {
        SyntheticCameraBackend backend({3, {320, 180}, 30});
        Owner owner;
        CameraManager m(owner.videoQ, owner.hooks(), backend);
        owner.wire(m);
        owner.videoQ.sync([&] { m.build(); });
        owner.previewing = true;
        QTest::qWait(500);
        QList<QByteArray> jpegs = owner.takeJpegs();
        QVERIFY(jpegs.size() >= 5);
        for (const QByteArray &j : jpegs)
            QCOMPARE(cameraOf(j), 1);

        owner.setPreviewUID("synthetic-3");
        owner.videoQ.sync([] {});
        owner.takeJpegs();
        QTest::qWait(500);
        jpegs = owner.takeJpegs();
        QVERIFY(jpegs.size() >= 5);
        for (const QByteArray &j : jpegs)
            QCOMPARE(cameraOf(j), 3);

        owner.allowed = false; // frames are dropped while cameras are not allowed
        owner.videoQ.sync([] {});
        owner.takeJpegs();
        QTest::qWait(200);
        QVERIFY(owner.takeJpegs().isEmpty());
    }
};

QTEST_GUILESS_MAIN(TstCameraManager)
#include "tst_camera_manager.moc"
