#include "AppDelegate.h"
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
    PulseBackend audio;
    const std::unique_ptr<CameraBackend> cameras = CameraBackend::fromEnvironment();
    Permissions permissions(audio);
    Recorder recorder(audio, *cameras, Clock::monotonic());
    AppDelegate delegate(recorder, Connection::shared(), permissions);
    delegate.applicationDidFinishLaunching();
    return app.exec();
}
