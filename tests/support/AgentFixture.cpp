#include "AgentFixture.h"

#include "PulseBackend.h"
#include "Reconciler.h"

#include <QTest>

AgentFixture::AgentFixture(TestHome &home, AudioBackend *audio, const QString &webBase, Clock &clock, bool fresh)
    : home(home)
{
    home.wipe();
    home.useInfo(webBase.isEmpty() ? QString() : room.address(), QStringLiteral("2.5"), webBase);
    if (!fresh) {
        home.settings().setAgentID(7);
        home.settings().setAgentName(QStringLiteral("Ana Lee & Co=1"));
        home.settings().setServer(room.address());
        home.settings().setSetupDone(true);
    }
    ownAudio = audio ? nullptr : std::make_unique<PulseBackend>();
    app = std::make_unique<AppDelegate>(home.settings(), home.info(), audio ? *audio : *ownAudio, cameras, clock);
    app->uploader().tickIntervalMs = 200;
    app->connection().retryMs = 200;
    app->applicationDidFinishLaunching();
    if (!fresh)
        (void)QTest::qWaitFor([this] { return app->connection().connected(); }, 5000); // the tests check it
}


bool AgentFixture::command(const QJsonObject &c)
{
    room.send(c);
    const QString marker = QStringLiteral("marker%1").arg(++markers);
    room.send({{QStringLiteral("type"), QStringLiteral("quality")}, {QStringLiteral("q"), marker}});
    return QTest::qWaitFor([&] { return home.settings().uploadQuality() == marker; }, 5000) && idle();
}

bool AgentFixture::idle()
{
    return QTest::qWaitFor([this] { return !app->commands().reconciler().applying(); }, 10000);
}
