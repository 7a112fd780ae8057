#include "AgentFixture.h"
#include "HttpStub.h"
#include "ManualClock.h"
#include "DataFolder.h"
#include "Heartbeat.h"
#include "SetupRoute.h"
#include "StallWatch.h"
#include "Reconciler.h"
#include "SyntheticAudioBackend.h"
#include "TestLiterals.h"
#include "TrayView.h"

#include <QApplication>
#include <QDesktopServices>
#include <QMenu>
#include <QMessageBox>
#include <QSystemTrayIcon>
#include <QWebSocket>
#include <QWebSocketServer>
#include <QtTest>

#include <thread>

#include <sys/inotify.h>
#include <unistd.h>

// The agent as main() builds it, driven by a control room on loopback over its real link.
class AgentTest : public QObject
{
    Q_OBJECT
    TestHome home;
    SyntheticAudioBackend refusing;
    std::unique_ptr<AgentFixture> f;
    QUrl opened; // what the desktop was asked to open

    Recorder &rec() { return f->app->recorder(); }
    Reconciler &wishes() { return f->app->commands().reconciler(); }
    QStringList menu() const
    {
        QStringList titles;
        for (QAction *a : f->app->status().tray()->menu()->actions())
            titles.append(a->text());
        return titles;
    }
    // Waits for n more heartbeats: the time in which anything already sent has arrived.
    bool heartbeats(int n)
    {
        const qsizetype before = f->room.statuses().size();
        return QTest::qWaitFor([&] { return f->room.statuses().size() >= before + n; }, 5000);
    }

public Q_SLOTS:
    void openUrl(const QUrl &url) { opened = url; }

private Q_SLOTS:
    void init()
    {
        // A temporary folder of its own, so a build that lives in /tmp still counts as a lasting place.
        const QString tmp = home.root() + QStringLiteral("/tmp");
        QVERIFY(QDir().mkpath(tmp) && qputenv("TMPDIR", QFile::encodeName(tmp)));
        f = std::make_unique<AgentFixture>(home);
        QVERIFY(f->app->connection().connected());
    }
    void cleanup()
    {
        f.reset();
        qDeleteAll(QApplication::topLevelWidgets());
    }

    void launchRegistersLoginItemAndDrawsTheMenu()
    {
        QFile entry(home.root() + QStringLiteral("/config/autostart/brava-recorder.desktop"));
        QVERIFY(entry.open(QIODevice::ReadOnly) && entry.readAll().contains(QByteArray("Exec=\"" + QCoreApplication::applicationFilePath().toUtf8() + "\"")));
        // No tray in the offscreen platform: said once in the log (no fault in the status), and the menu is kept all the same.
        const QString noTray = QStringLiteral("no system tray on this desktop: running without a menu");
        QCOMPARE(home.log().count(noTray), 1);
        QCOMPARE(home.log().count(QStringLiteral("start: Brava Recorder 2.5 (build ")), 1);
        QTRY_COMPARE(menu().value(1), QStringLiteral("On · Connected to control room"));
        QCOMPARE(f->room.urls.first().toString(QUrl::FullyEncoded).section(QLatin1Char('/'), 3),
                 QStringLiteral("agent?id=7&os=linux&v=2.5&name=Ana%20Lee%20%26%20Co%3D1"));
        QVERIFY(home.log().contains(QStringLiteral("Z connected to %1 as agent 7\n").arg(f->room.address())));
        // The heartbeat's live values (its bytes are heartbeatBytes'), every half second.
        QVERIFY(AppDelegate::kTickMs == 500 && StatusView::kFlashMs == 1600 && Upkeep::kVersionCheckMs == 10000);
        QVERIFY(heartbeats(1));
        const QJsonObject o = f->room.statuses().last();
        QVERIFY(o.value(QLatin1String("mic")).isDouble() && o.value(QLatin1String("camError")).isNull() && o.value(QLatin1String("rate")) == QJsonValue(48000));
        QVERIFY(o.value(QLatin1String("error")).isNull() && o.value(QLatin1String("cams")).toArray().size() == 1);
        // The menu is drawn again only when what it shows changed.
        const int before = f->app->status().tray()->drawCount();
        for (int i = 0; i < 3; ++i)
            f->app->tick();
        QCOMPARE(f->app->status().tray()->drawCount(), before);
        QVERIFY(f->command(J{{"type", "cameras"}, {"on", true}}));
        QCOMPARE(f->app->status().tray()->drawCount(), before + 1);
        QVERIFY(menu().contains(QStringLiteral("🔵  On a Call")));
    }

    // The heartbeat reads memory only: no file in the settings or data folders is opened during
    // twenty ticks. An edit of settings.ini from outside reaches the agent within a second and the
    // control room with the next heartbeat.
    void tickTouchesNoFileAndOutsideEditsArrive()
    {
        QVERIFY(heartbeats(1));
        const int fd = inotify_init1(IN_NONBLOCK);
        QVERIFY(fd >= 0);
        const auto closeFd = qScopeGuard([fd] { ::close(fd); });
        for (const QString &folder : {QFileInfo(home.settings().path()).absolutePath(), DataFolder::dataDir(),
                                      DataFolder::dir(QStringLiteral("pending")), DataFolder::dir(QStringLiteral("writing"))})
            QVERIFY(inotify_add_watch(fd, QFile::encodeName(folder).constData(), IN_OPEN | IN_ACCESS | IN_MODIFY) >= 0);
        const int reads = home.settings().reads(); // a read that only looks at the file's time is no inotify event
        for (int i = 0; i < 20; ++i)
            f->app->tick();
        QCOMPARE(home.settings().reads(), reads);
        char events[4096];
        QCOMPARE(::read(fd, events, sizeof events), ssize_t(-1)); // nothing to read: no file was touched
        QSettings(home.settings().path(), QSettings::IniFormat).setValue(QStringLiteral("camUID"), QStringLiteral("by-hand"));
        QTRY_COMPARE_WITH_TIMEOUT(home.settings().camUID(), QStringLiteral("by-hand"), 1000);
        QTRY_COMPARE_WITH_TIMEOUT(f->room.statuses().last().value(QLatin1String("camUID")).toString(), QStringLiteral("by-hand"), 1000);
    }

    // The heartbeat's bytes, written out by hand: order, escapes, numbers, null and lists (no raw
    // string here: moc would lose the test functions after it).
    void heartbeatBytes()
    {
        const Heartbeat::Values v{.updateBusy = true, .mic = 0.5, .camError = QStringLiteral("Webcam \"A\"\n"), .micName = QStringLiteral("Zoë\t1"),
                                  .mics = {Device{QStringLiteral("u/1"), QStringLiteral("M"), true, true}}, .camUID = QStringLiteral("c")};
        QCOMPARE(Heartbeat::message(v).toJson(),
                 QByteArray("{\"type\":\"status\",\"updateBusy\":true,\"recording\":false,\"live\":false,\"mic\":0.5,\"sys\":0,"
                            "\"rate\":48000,\"cam\":false,\"camActive\":false,\"camError\":\"Webcam \\\"A\\\"\\n\",\"micName\":\"Zoë\\t1\","
                            "\"mics\":[{\"name\":\"M\",\"uid\":\"u/1\"}],\"cams\":[],\"micUID\":\"\",\"camUID\":\"c\",\"error\":null}"));
    }

    // Every reason for setup has its step; the others reopen where the wizard was left.
    void setupReasonsAndTheirSteps()
    {
        using R = SetupRoute::Reason;
        for (const auto &[reason, step] : {std::pair{R::MicRefused, std::optional(SetupStep::Mic)}, {R::ComputerAudioRefused, std::optional(SetupStep::Audio)},
                                           {R::CameraRefused, std::optional(SetupStep::Camera)}, {R::NotSetUp, std::optional<SetupStep::Step>()}, {R::Released, std::optional<SetupStep::Step>()}})
            QCOMPARE(SetupRoute::stepFor(reason), step);
        QCOMPARE(WizardModel::stepNames(), strings({"Welcome", "Number", "Mic", "Audio", "Camera", "Test", "Done"}));
        home.settings().setWizardStep(SetupStep::Test);
        QSignalSpy announced(&f->app->state(), &AgentState::setupNeeded);
        f->app->setupRoute().need(R::Released);
        QVERIFY(announced.size() == 1 && announced.first().first().value<SetupStep::Step>() == SetupStep::Test && f->app->wizardOpen());
        QCOMPARE(f->app->wizardModel()->step(), int(SetupStep::Test)); // reopened where it was left
    }

    void commandsDriveTheRecorder()
    {
        for (const char *type : {"preview", "cameras", "listen", "preview"}) // a preview before cameras is refused
            QVERIFY(f->command(J{{"type", type}, {"on", true}}));
        QVERIFY(rec().running() && !rec().session() && rec().listening && f->app->commands().live());
        const auto frames = [&](char kind) { return std::count_if(f->room.binaries.cbegin(), f->room.binaries.cend(), [kind](const QByteArray &b) { return b.size() > 1 && b.at(0) == kind; }); };
        QTRY_VERIFY_WITH_TIMEOUT(frames(0) > 3 && frames(1) > 3 && frames(2) > 3, 10000); // live audio and preview reach the room
        QVERIFY(f->command(J{{"type", "start"}, {"session", "s1"}}));
        QVERIFY(rec().session() == QStringLiteral("s1") && rec().isRecording() && rec().listening);
        for (const char *fact : {"Recording session “s1”", "Listening live", "Camera preview on"}) // the tray says so
            QTRY_VERIFY2(f->app->status().tray()->tip().contains(QString::fromUtf8(fact)), fact);
        const int calls = wishes().recorderCalls();
        QVERIFY(f->command(J{{"type", "start"}, {"session", "s1"}})); // the same session again: no restart
        QVERIFY(f->command(J{{"type", "stop"}}));                      // stopping the session keeps the listen-only run
        QVERIFY(wishes().recorderCalls() == calls + 1 && rec().running() && !rec().session());

        // Wishes that change while a pass waits for the recorder are folded into that pass.
        bool injected = false;
        wishes().onRecorderCall = [&] {
            if (!std::exchange(injected, true)) {
                f->app->commands().handle(J{{"type", "start"}, {"session", "b"}});
                f->app->commands().handle(J{{"type", "start"}, {"session", "c"}});
            }
        };
        const int before = wishes().recorderCalls();
        f->app->commands().handle(J{{"type", "start"}, {"session", "a"}});
        QVERIFY(f->idle());
        wishes().onRecorderCall = nullptr;
        QVERIFY(rec().session() == QStringLiteral("c") && wishes().recorderCalls() == before + 2 && !home.log().contains(QStringLiteral("session=b")));

        // Cameras off ends everything, even frames still in flight, and refuses live audio and preview
        // until they are back.
        QVERIFY(f->command(J{{"type", "cameras"}, {"on", false}}) && !rec().running() && !wishes().desiredSession);
        QVERIFY(heartbeats(1));
        f->room.binaries.clear();
        std::thread([&] { rec().onPreviewFrame("late"), rec().onLiveAudio(0, "late"); }).join();
        QVERIFY(f->command(J{{"type", "listen"}, {"on", true}}) && f->command(J{{"type", "preview"}, {"on", true}, {"hd", true}}));
        QVERIFY(!wishes().wantListen && !rec().previewing && rec().previewHd);
        QVERIFY(heartbeats(2) && f->room.binaries.isEmpty());
    }

    void argumentsOfTheWrongTypeCountAsAbsent()
    {
        QVERIFY(f->command(J{{"type", "cameras"}, {"on", true}}));
        home.settings().setUploadQuality(QStringLiteral("low"));
        QCOMPARE(wishes().writerSetup().videoBitrate, 2000000); // the next take's camera rate
        f->room.send(J{{"type", "quality"}});
        QTRY_COMPARE(home.settings().uploadQuality(), QStringLiteral("full"));
        QTRY_COMPARE(home.log().count(QStringLiteral("upload quality set to full")), 1);
        rec().setPreviewCamUID(QStringLiteral("cam-x"));
        for (const J &c : {J{{"type", "listen"}, {"on", "yes"}}, J{{"type", "start"}, {"session", 42}}, J{{"type", "setCam"}}})
            QVERIFY(f->command(c));
        QVERIFY(!wishes().wantListen && !wishes().desiredSession && rec().previewCamUID().isEmpty());
        home.settings().setMicUID(QStringLiteral("keep"));
        QVERIFY(f->command(J{{"type", "setMic"}, {"uid", 3}}) && home.settings().micUID() == QStringLiteral("keep"));
        QVERIFY(f->command(J{{"type", "setMic"}, {"uid", "usb-mic"}}) && home.settings().micUID() == QStringLiteral("usb-mic"));

        // Junk and unknown commands change nothing and log nothing; the link stays up.
        const int lines = int(home.log().count(QLatin1Char('\n'))), markers = f->markers;
        for (const char *text : {"{\"type\":\"START\",\"session\":\"x\"}", "{\"type\":null}", "[{\"type\":\"start\"}]",
                                 "{\"type\":\"whisper\",\"text\":\" \\t\"}", "{\"type\":\"launch\"}", "{\"type\":\"start\""})
            f->room.sendText(QString::fromUtf8(text));
        QVERIFY(f->command(J{{"type", "setCam"}, {"uid", "z"}}) && rec().previewCamUID() == QStringLiteral("z"));
        QVERIFY(!wishes().desiredSession && f->app->connection().connected());
        QCOMPARE(int(home.log().count(QLatin1Char('\n'))) - (f->markers - markers), lines);
    }

    // A dropped link ends listening but not the take, whose segments reach the room's upload.
    void linkDropKeepsTheTakeWhoseSegmentsReachTheRoom()
    {
        for (const char *type : {"cameras", "listen"})
            QVERIFY(f->command(J{{"type", type}, {"on", true}}));
        QVERIFY(f->command(J{{"type", "start"}, {"session", "take-2"}}));
        f->room.dropAgents();
        QTRY_VERIFY(!f->app->connection().connected());
        QElapsedTimer down;
        down.start();
        QVERIFY(f->idle());
        QVERIFY(!wishes().wantListen && !rec().listening && !f->app->commands().live() && rec().session() == QStringLiteral("take-2"));
        QTRY_VERIFY(f->app->connection().connected());
        QVERIFY(down.elapsed() >= f->app->connection().retryMs - 50 && heartbeats(1)); // a new link after the retry delay
        QVERIFY(f->room.statuses().last().value(QLatin1String("recording")).toBool() && !f->room.statuses().last().value(QLatin1String("live")).toBool());
        const QString writing = DataFolder::dir(QStringLiteral("writing/take-2"));
        QTRY_VERIFY_WITH_TIMEOUT(QDir(writing).entryList(QDir::Files).size() >= 2, 5000);
        QVERIFY(heartbeats(2) && f->command(J{{"type", "stop"}}));
        QTRY_VERIFY_WITH_TIMEOUT(f->room.uploads.size() >= 2 && f->app->uploader().pendingCount() == 0, 15000);
        QStringList tracks;
        for (int i = 0; i < f->room.uploads.size(); ++i) {
            QFile file(f->room.uploadPaths[i]);
            QVERIFY(file.open(QIODevice::ReadOnly) && file.read(8).mid(4) == "ftyp"); // a whole MP4 file from its first byte
            tracks.append(f->room.uploads[i].queryItemValue(QLatin1String("track")) + QLatin1Char(' ') + f->room.uploads[i].queryItemValue(QLatin1String("session"))
                          + QLatin1Char(' ') + f->room.uploads[i].queryItemValue(QLatin1String("final")));
        }
        QVERIFY2(tracks.contains(QLatin1String("mic take-2 1")) && tracks.contains(QLatin1String("sys take-2 1")) && tracks.filter(QStringLiteral(" 1")).size() == tracks.size(), qPrintable(tracks.join(QLatin1Char(','))));
        // Nothing is left behind: the session's folders go once their last piece has gone on.
        QTRY_VERIFY(!QFileInfo::exists(writing) && !QFileInfo::exists(DataFolder::pathOf(QStringLiteral("pending/take-2"))));
        QCOMPARE(home.log().count(QRegularExpression(QStringLiteral("upload: \\w+_\\d+_\\d+(_final)?\\.m[p4][4a] done\n"))), f->room.uploads.size());
    }

    void roomDownForAWhileGetsEverySegmentInOrder()
    {
        f->room.goDown();
        QTRY_VERIFY(!f->app->connection().connected());
        const QString folder = DataFolder::dir(QStringLiteral("writing/show-1"));
        int waiting = 0;
        for (const char *name : {"sys_1700000000001_00000.m4a", "sys_1700000000001_00001.m4a", "mic_1700000000001_00002.m4a",
                                 "sys_1700000000001_00003_final.m4a"}) {
            QFile file(folder + QLatin1Char('/') + QLatin1String(name));
            QVERIFY(file.open(QIODevice::WriteOnly) && file.write(QByteArray(70000, 'x')) == 70000);
            std::thread([&] { rec().onSegmentDone(file.fileName(), QStringLiteral("show-1")); }).join(); // as a writer reports
            ++waiting; // from the first file on, the menu says so and an update waits
            QTRY_VERIFY(menu().contains(QStringLiteral("Uploading %1 file(s)…").arg(waiting)) && f->app->updateBusy());
        }
        QVERIFY(f->room.comeBack());
        QTRY_VERIFY_WITH_TIMEOUT(f->room.uploads.size() == 4 && f->app->connection().connected(), 10000);
        QStringList order;
        for (const QUrlQuery &q : f->room.uploads)
            order.append(q.queryItemValue(QLatin1String("idx")) + q.queryItemValue(QLatin1String("track")) + q.queryItemValue(QLatin1String("final")) + q.queryItemValue(QLatin1String("id")));
        QCOMPARE(order, strings({"2mic07", "0sys07", "1sys07", "3sys17"}));
        QTRY_COMPARE(f->app->status().menuState().pendingCount, 0);
    }

    void replacedShowsTheAlertAndStaysDown()
    {
        f->room.send(J{{"type", "replaced"}});
        QTRY_VERIFY(f->app->connection().replaced() && QApplication::activeModalWidget());
        QCOMPARE(qobject_cast<QMessageBox *>(QApplication::activeModalWidget())->text(), QStringLiteral("Agent #7 is being used on another computer"));
        QTRY_COMPARE(menu().value(1), QStringLiteral("⚠ Agent number in use on another computer"));
        f->room.dropAgents();
        QTRY_VERIFY(!f->app->connection().connected());
        QTest::qWait(3 * f->app->connection().retryMs);
        QVERIFY(f->room.urls.size() == 1 && home.settings().agentID() == 7);
    }

    void releaseFreesTheNumberAtOnce()
    {
        QVERIFY(f->command(J{{"type", "cameras"}, {"on", true}}) && f->command(J{{"type", "start"}, {"session", "s5"}}));
        f->room.send(J{{"type", "release"}});
        QTRY_COMPARE(home.settings().agentID(), 0);
        QVERIFY(!home.settings().setupDone() && !f->app->connection().connected() && !wishes().desiredSession && f->app->wizardOpen());
        QVERIFY(!f->app->wizardModel()->trayAvailable()); // its last screen tells where the agent is without a tray
        QTRY_VERIFY(!rec().running());
        // Without setup, wishes are kept but not carried out; and the link stays down.
        f->app->commands().handle(J{{"type", "start"}, {"session", "late"}});
        QTest::qWait(3 * f->app->connection().retryMs);
        QVERIFY(!rec().running() && !wishes().applying() && f->room.urls.size() == 1);
    }

    void callToggleTellsTheRoomAndARefusedCameraReopensSetup()
    {
        QVERIFY(f->command(J{{"type", "cameras"}, {"on", true}}));
        f->app->actions().toggleCall();
        QVERIFY(f->app->updateBusy());
        QTRY_COMPARE(menu().value(3), QStringLiteral("⏹  End the Call"));
        // Cameras off mid-call hide the call controls, but the call item stays: it ends the call.
        QVERIFY(f->command(J{{"type", "cameras"}, {"on", false}}));
        QTRY_VERIFY(!menu().value(3).contains(QStringLiteral("Call")));
        const TrayView *tray = f->app->status().tray();
        // Told apart at a glance from the main icon on a call.
        QVERIFY(tray->callItem() && tray->callItem()->icon().pixmap(22).toImage() != QIcon(TrayTip::iconPath(TrayTip::Look::OnCall)).pixmap(22).toImage());
        f->app->actions().toggleCall();
        QVERIFY(!tray->callItem());
        f->app->actions().needHelp();
        QTRY_COMPARE(f->room.events.size(), 3);
        QVERIFY(f->app->status().tray()->title().contains(QStringLiteral("Help sent")) && f->app->status().tray()->tip().startsWith(QStringLiteral("Help sent — coaches alerted\n")));
        for (const char *type : {"call_start", "call_end", "help"})
            QCOMPARE(home.log().count(QStringLiteral("event sent: ") + QLatin1String(type) + QLatin1Char('\n')), 1);
        // Help the control room never took says so, in the title, the log and the heartbeat's error.
        const std::optional<QString> before = f->app->error(); // the no-tray note
        home.settings().setServer(QStringLiteral("127.0.0.1:1"));
        f->app->actions().needHelp();
        QTRY_VERIFY(f->app->status().tray()->title().contains(QStringLiteral("Help not delivered")));
        QVERIFY(f->app->error().value_or(QString()).startsWith(QStringLiteral("event \"help\" not delivered: ")));
        QCOMPARE(home.log().count(QStringLiteral("event \"help\" not delivered")), 1);
        home.settings().setServer(f->room.address());
        f->app->actions().needHelp();
        QTRY_VERIFY(f->app->error() == before);
        // "Open Local Backup Folder" hands the data folder to the desktop and names it.
        QDesktopServices::setUrlHandler(QStringLiteral("file"), this, "openUrl");
        f->app->actions().openFolder();
        QDesktopServices::unsetUrlHandler(QStringLiteral("file"));
        QVERIFY(opened == QUrl::fromLocalFile(DataFolder::dataDir()) && tray->tip().startsWith(QStringLiteral("Backup folder: ") + DataFolder::dataDir()));
        // A camera this user may not open brings the wizard up at the camera step, with its repair.
        f->cameras.setRefused(true);
        QVERIFY(f->command(J{{"type", "cameras"}, {"on", true}}));
        QTRY_VERIFY(f->app->wizardOpen() && f->app->wizardModel()->step() == 4);
        QVERIFY(f->app->wizardModel()->camDenied() && home.settings().wizardStep() == SetupStep::Camera);
    }

    // Each text over its limit is refused whole, with one line naming the command and the argument.
    void overlongTextsAreRefusedAndLogged()
    {
        const auto longer = [](qsizetype limit) { return QString(limit + 1, QLatin1Char('w')); };
        const QList<QPair<J, QString>> commands = {
            {J{{"type", "start"}, {"session", longer(Commands::kMaxSession)}}, QStringLiteral("start: \"session\"")},
            {J{{"type", "whisper"}, {"text", longer(Commands::kMaxWhisper)}, {"seat", 1}}, QStringLiteral("whisper: \"text\"")},
            {J{{"type", "setMic"}, {"uid", longer(Commands::kMaxUid)}}, QStringLiteral("setMic: \"uid\"")},
            {J{{"type", "setCam"}, {"uid", longer(Commands::kMaxUid)}}, QStringLiteral("setCam: \"uid\"")},
            {J{{"type", "quality"}, {"q", longer(Commands::kMaxQuality)}}, QStringLiteral("quality: \"q\"")}};
        // A refused start is the heartbeat's error until the next command is taken (unknown and
        // refused ones are not).
        const auto refusalShown = [&] {
            return !f->room.statuses().isEmpty()
                   && f->room.statuses().last().value(QLatin1String("error")).toString().startsWith(QStringLiteral("command start: \"session\" of 101"));
        };
        f->room.send(commands.first().first);
        QTRY_VERIFY(refusalShown());
        for (const J &c : {J{{"type", "launch"}}, J{{"type", "whisper"}, {"text", " "}}, J{{"type", "setMic"}}})
            f->room.send(c); // (not command(): its marker is a command taken)
        QVERIFY(heartbeats(2) && refusalShown());
        QVERIFY(f->command(J{{"type", "stop"}}) && heartbeats(2));
        QVERIFY(f->room.statuses().last().value(QLatin1String("error")).isNull()); // the refusal ended with the command taken
        home.settings().setMicUID(QStringLiteral("keep"));
        for (const auto &[command, line] : commands) {
            QVERIFY(f->command(command));
            QVERIFY2(home.log().count(QStringLiteral("command ") + line + QStringLiteral(" of ")) == (line.startsWith(QStringLiteral("start")) ? 2 : 1), qPrintable(line));
        }
        QVERIFY(!wishes().desiredSession && home.settings().micUID() == QStringLiteral("keep") && rec().previewCamUID().isEmpty());
        QVERIFY(!home.log().contains(QStringLiteral("upload quality set to w")));
        QVERIFY(f->command(J{{"type", "whisper"}, {"text", QString(Commands::kMaxWhisper, QLatin1Char('w'))}}));
        QCOMPARE(home.log().count(QStringLiteral("command whisper")), 1); // at the limit: taken
    }

    void linkRules()
    {
        Connection &conn = f->app->connection();
        // Frames sent from another thread arrive whole behind their kind.
        std::thread([&] { conn.sendLiveAudio(1, QByteArray(640, 'a')); }).join();
        QTRY_COMPARE(f->room.binaries, QList<QByteArray>({QByteArray(1, 1) + QByteArray(640, 'a')}));
        // An oversized message drops the link, which comes back.
        f->room.sendText(QString(int(Connection::kMaxMessageBytes) + 16, QLatin1Char('x')));
        QTRY_VERIFY_WITH_TIMEOUT(f->room.urls.size() == 2 && conn.connected(), 8000);
        // A connect() during the retry wait makes one socket.
        f->room.dropAgents();
        QTRY_VERIFY(!conn.connected());
        conn.open();
        QTRY_VERIFY(conn.connected() && f->room.agentCount() == 1);
        // Without a number or a usable address no socket is made, not even by a retry, and sends are dropped.
        home.settings().setAgentID(0);
        conn.open();
        QVERIFY(!conn.connected()); // the link that was up is gone at once, not left shown as up
        QTRY_COMPARE(f->room.agentCount(), 0);
        home.settings().setAgentID(7);
        // A room that keeps refusing the link is logged once, not at every retry.
        const qint64 generation = conn.generation();
        for (const char *server : {"not a host:xx", "", "127.0.0.1:1"}) {
            home.settings().setServer(QString::fromLatin1(server));
            conn.open();
        }
        conn.sendPreview("early");
        QTest::qWait(3 * conn.retryMs);
        QVERIFY(f->room.urls.size() == 3 && f->room.binaries.size() == 1);
        // Three connects and at least two retries.
        QVERIFY(home.log().count(QStringLiteral("cannot open the link to 127.0.0.1:1")) == 1 && conn.generation() >= generation + 5);
        QCOMPARE(conn.lastFailure(), QStringLiteral("Connection refused")); // the tray adds the address
        // A link that opened in between makes the same failure news again.
        home.settings().setServer(f->room.address());
        conn.open();
        QTRY_VERIFY(conn.connected());
        home.settings().setServer(QStringLiteral("my room")); // no address at all: never tried, never shown as up
        conn.open();
        QVERIFY(!conn.connected());
        home.settings().setServer(QStringLiteral("127.0.0.1:1"));
        conn.open();
        QTRY_COMPARE(home.log().count(QStringLiteral("cannot open the link to 127.0.0.1:1")), 2);
        // A room that takes the link and then answers nothing, not even pings (frozen, or gone
        // with the Wi-Fi without a word): the link counts as lost after the silence, and is tried again.
        // The room runs on a thread of its own, which then hangs.
        QThread roomThread;
        roomThread.start();
        QWebSocketServer silent(QStringLiteral("frozen"), QWebSocketServer::NonSecureMode);
        silent.moveToThread(&roomThread);
        QList<QWebSocket *> links; // kept open, owned by the server
        std::atomic<int> opened = 0;
        quint16 silentPort = 0;
        QMetaObject::invokeMethod(&silent, [&] {
            silent.listen(QHostAddress::LocalHost);
            silentPort = silent.serverPort();
            connect(&silent, &QWebSocketServer::newConnection, &silent, [&] { links << silent.nextPendingConnection(), ++opened; });
        }, Qt::BlockingQueuedConnection);
        QSemaphore thaw;
        const auto finish = qScopeGuard([&] {
            thaw.release();
            QMetaObject::invokeMethod(&silent, [&] { qDeleteAll(links), silent.close(), silent.moveToThread(QCoreApplication::instance()->thread()); }, Qt::BlockingQueuedConnection);
            roomThread.quit();
            roomThread.wait();
        });
        conn.silenceMs = 600;
        home.settings().setServer(QStringLiteral("127.0.0.1:%1").arg(silentPort));
        conn.open();
        QTRY_VERIFY(conn.connected() && opened >= 1);
        const int before = opened;
        QTest::qWait(2 * conn.silenceMs);
        QVERIFY(conn.connected() && opened == before); // pings answered: a link quiet for longer than the silence holds
        QThread::msleep(3 * conn.silenceMs); // this computer stops running the agent: no silence of the room's
        QTest::qWait(conn.silenceMs);
        QVERIFY(conn.connected() && opened == before && home.log().contains(QStringLiteral("the link went quiet while this computer did not run")));
        QMetaObject::invokeMethod(&silent, [&thaw] { thaw.acquire(); }); // the room hangs
        QTRY_VERIFY(!conn.connected());
        QVERIFY(home.log().contains(QStringLiteral("the control room stopped answering (nothing for 0.6 s): reconnecting")));
        thaw.release();
        QTRY_VERIFY(opened > before && conn.connected()); // the thawed room takes the link again
        QVERIFY(Connection(home.settings(), home.info()).retryMs == 2000 && Connection::kSilenceMs == 15000 && Connection::kMaxMessageBytes == 8 << 20); // the real delays, shortened above
        QVERIFY(Connection::watchMs(Connection::kSilenceMs) == 1000 && Connection::watchMs(600) == 200); // pinged every second, or every third of a shorter silence
    }

    // A late tick is a stall: logged, and while a take runs shown for a minute (the take may have a gap there).
    void stallsAreNoted()
    {
        StallWatch watch;
        const struct { qint64 at; bool recording; bool shown; } beats[] = {
            {0, true, false}, {500, true, false}, {4500, true, false}, {4500 + StallWatch::kStallMs + 1, false, false}, // not recording: logged only
            {9000, true, false}, {13001, true, true}};
        for (const auto &[at, recording, shown] : beats) {
            watch.beat(at, recording);
            QVERIFY2(watch.note(at).isEmpty() != shown, qPrintable(QString::number(at)));
        }
        QCOMPARE(watch.note(13001 + StallWatch::kShowMs - 1), QStringLiteral("This computer did not run the recorder for 4.0 s (suspended or overloaded): the recording may have a gap there"));
        QVERIFY(watch.note(13001 + StallWatch::kShowMs).isEmpty());
        QCOMPARE(home.log().count(QStringLiteral("did not run the recorder for")), 2);
    }

    // A locked build with an event web service: check-in at launch and when the link comes back,
    // the roster at launch and when an unknown seat whispers.
    void webServiceWiring()
    {
        f.reset();
        HttpStub service;
        QVERIFY(service.listen());
        service.setDefault(HttpStub::status(200, R"({"3":"Ann"})"));
        const auto asked = [&](const char *path) {
            return std::count_if(service.requests.cbegin(), service.requests.cend(), [path](const HttpStub::Request &r) { return r.url.path().endsWith(QLatin1String(path)); });
        };
        ManualClock clock;
        f = std::make_unique<AgentFixture>(home, nullptr, QStringLiteral("http://") + service.address(), clock);
        QTRY_VERIFY(asked("/checkin") == 1 && f->app->roster().name(3) == QStringLiteral("Ann"));
        QVERIFY(f->command(J{{"type", "whisper"}, {"text", "Slow down"}, {"seat", 3}}) && asked("/mentors") == 1);
        f->room.send(J{{"type", "whisper"}, {"text", "Smile"}, {"seat", 7}});
        QTRY_COMPARE(asked("/mentors"), 2);
        clock.advance((CheckIn::kMinSpacingMs + 1) * 1000000); // past the spacing of check-ins
        f->room.dropAgents();
        QTRY_COMPARE(asked("/checkin"), 2);
        f.reset(); // before the service goes
    }

    // A sound server that refuses this program sends the agent back to setup at the microphone step.
    void refusedSoundServerReopensSetup()
    {
        f.reset();
        refusing.accessAnswer = AudioBackend::Access::Refused;
        f = std::make_unique<AgentFixture>(home, &refusing);
        QCOMPARE(home.log().count(QStringLiteral("permission missing: mic=false screen=false")), 1);
        // The wizard is up at the microphone step, with the repair it offers on this computer.
        QVERIFY(f->app->wizardModel() && f->app->wizardModel()->step() == 2);
        QTRY_VERIFY(f->app->wizardModel()->micDenied());
        // Closed, it lets the control room start a take; the refusal the take finds brings it back.
        home.settings().setWizardStep(0);
        f->app->wizardWindow()->close();
        QTRY_VERIFY(!f->app->wizardModel());
        QVERIFY(f->command(J{{"type", "cameras"}, {"on", true}}) && f->command(J{{"type", "start"}, {"session", "s6"}}));
        QVERIFY(rec().blocked() == Recorder::Blocked::Microphone && home.settings().wizardStep() == SetupStep::Mic);
        QVERIFY(f->app->wizardOpen() && f->app->wizardModel()->step() == 2);
    }

    // Two copies of the program on one account (the login item and a manual start): the second
    // one quits at once, never touches the first one's recordings, and has the first one show itself.
    void secondCopyLeavesTheFirstOnesTakeAlone()
    {
        QTemporaryDir account;
        const QString data = account.path() + QStringLiteral("/data/Brava Recorder");
        QProcess first, second;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment(); // the account's own folders
        env.insert(QStringLiteral("XDG_CONFIG_HOME"), account.path() + QStringLiteral("/config"));
        env.insert(QStringLiteral("XDG_DATA_HOME"), account.path() + QStringLiteral("/data"));
        const QString program = qEnvironmentVariable("BRAVA_TEST_BINARY_DIR") + QStringLiteral("/brava-recorder");
        first.setProcessEnvironment(env), second.setProcessEnvironment(env);
        first.start(program, {});
        // Launched: its lock taken, the leftovers of an earlier run recovered, the login entry written.
        QTRY_VERIFY(QFile::exists(data + QStringLiteral("/agent.lock")) && QFile::exists(account.path() + QStringLiteral("/config/autostart/brava-recorder.desktop")));
        // A piece the first copy is writing: a second copy must not take it for a crash's leftover.
        const QString growing = data + QStringLiteral("/writing/s/mic_1_00000.m4a");
        QVERIFY(QDir().mkpath(QFileInfo(growing).path()));
        QFile file(growing);
        QVERIFY(file.open(QIODevice::WriteOnly));
        second.start(program, {});
        QVERIFY(second.waitForFinished(15000) && second.exitStatus() == QProcess::NormalExit && second.exitCode() == 0);
        QVERIFY(second.readAllStandardError().contains("Brava Recorder already runs for this account: it has been brought forward."));
        QVERIFY(QFile::exists(growing) && first.state() == QProcess::Running);
        QFile log(data + QStringLiteral("/log.txt"));
        QVERIFY(log.open(QIODevice::ReadOnly));
        QByteArray seen = log.readAll();
        QVERIFY(seen.contains(QByteArray("another Brava Recorder already runs for this account (process " + QByteArray::number(first.processId())
                                         + "); this copy quits and the running one shows itself")));
        QTRY_VERIFY((seen += log.readAll()).contains("started again while running: shown"));
        first.kill();
        first.waitForFinished();
    }
};

QTEST_MAIN(AgentTest)
#include "tst_agent.moc"
