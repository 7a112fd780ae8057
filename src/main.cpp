#include "AppDelegate.h"
#include "CameraBackend.h"
#include "Clock.h"
#include "PulseBackend.h"

#include <QApplication>

int main(int argc, char *argv[])
{
    QApplication app(argc, argv);
    app.setApplicationName(QStringLiteral("Brava Recorder"));
    // A tray agent: closing a window never ends it.
    app.setQuitOnLastWindowClosed(false);
    // The platform parts first, so that they outlive the agent built on them.
    PulseBackend audio;
    const std::unique_ptr<CameraBackend> cameras = CameraBackend::fromEnvironment();
    AppDelegate delegate(audio, *cameras, Clock::monotonic());
    delegate.applicationDidFinishLaunching();
    return app.exec();
}
