// A recorder process for the crash test: records a take with a synthetic camera from a synthetic
// sound system fed in real time, prints "started <take>" and runs until it is killed.
#include "RecorderFixture.h"

#include <cstdio>

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    RecorderFixture f(1, false);
    f.rec->setCamerasEnabled(true);
    std::unique_ptr<AudioFeed> feed;
    f.rec->start(QStringLiteral("killed"), f.setup, [&] {
        feed = std::make_unique<AudioFeed>(*f.audio);
        std::printf("started %lld\n", static_cast<long long>(f.rec->currentTake()));
        std::fflush(stdout);
    });
    return app.exec();
}
