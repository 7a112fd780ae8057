#include "AppDelegate.h"
#include "BravaLog.h"
#include "Config.h"
#include "InstanceLock.h"
#include "CameraBackend.h"
#include "Clock.h"
#include "Connection.h"
#include "Permissions.h"
#include "PulseBackend.h"
#include "Recorder.h"

#include <QApplication>

int main(int argc, char *argv[])
{
    QApplication app(argc, argv);
    app.setApplicationName(QStringLiteral("Brava Recorder"));
    // A tray agent: closing a window never ends it.
    app.setQuitOnLastWindowClosed(false);
    // One agent per account: a second copy must never touch the first one's recordings.
    InstanceLock lock(Config::dataDir());
    if (!lock.tryLock()) {
        bravaLog(QStringLiteral("another Brava Recorder already runs for this account (") + lock.holder()
                 + QStringLiteral("); this copy quits"));
        return 0;
    }
    PulseBackend audio;
    const std::unique_ptr<CameraBackend> cameras = CameraBackend::fromEnvironment();
    Permissions permissions(audio);
    Recorder recorder(audio, *cameras, Clock::monotonic());
    AppDelegate delegate(recorder, Connection::shared(), permissions);
    delegate.applicationDidFinishLaunching();
    return app.exec();
}
