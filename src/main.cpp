#include "AppDelegate.h"
#include "BravaLog.h"
#include "BuildInfo.h"
#include "CameraBackend.h"
#include "Clock.h"
#include "CommandLine.h"
#include "DataFolder.h"
#include "DisplayPlatform.h"
#include "InstanceLock.h"
#include "PulseBackend.h"
#include "QuitSignals.h"
#include "SecondStart.h"
#include "Settings.h"
#include "WhisperCard.h"

#include <QApplication>
#include <QLoggingCategory>

#include <unistd.h>

int main(int argc, char *argv[])
{
    if (const std::optional<int> answered = CommandLine::answer(argc, argv))
        return *answered;
    // X11 (XWayland on a Wayland session) unless the user chose: only there can the call widget
    // stay above the dialer and keep its place.
    const DisplayPlatform::Choice display = DisplayPlatform::applyAtStartup();
    const QString engineNote = WhisperCard::prepareEngine(::geteuid() == 0);
    // The browser engine describes its set-up at length on its first page; QT_LOGGING_RULES still
    // turns that on for someone debugging it.
    QLoggingCategory::setFilterRules(QStringLiteral("qt.webenginecontext.info=false"));
    if (display.platform.isEmpty() && qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY"))
        return CommandLine::noDisplay();
    QApplication app(argc, argv);
    app.setApplicationName(QStringLiteral("Brava Recorder"));
    // A tray agent: closing a window never ends it; a logout or a stop ends it as Quit does.
    app.setQuitOnLastWindowClosed(false);
    QuitSignals quitSignals;
    // One agent per account: a second copy must never touch the first one's recordings.
    InstanceLock lock(DataFolder::dataDir());
    SecondStart secondStart(DataFolder::dataDir());
    if (!lock.tryLock()) {
        const bool heard = secondStart.knock();
        bravaLog(QStringLiteral("another Brava Recorder already runs for this account (") + lock.holder()
                 + (heard ? QStringLiteral("); this copy quits and the running one shows itself") : QStringLiteral("); this copy quits")));
        return CommandLine::alreadyRunning(heard);
    }
    secondStart.listen();
    if (!engineNote.isEmpty())
        bravaLog(engineNote);
    // Read once: what this build was packaged with, and the user's settings (kept current from here on).
    const BuildInfo build = BuildInfo::read(BuildInfo::besideExecutable());
    Settings settings(DataFolder::settingsFilePath(), build);
    // The platform parts first, so that they outlive the agent built on them.
    PulseBackend audio;
    const std::unique_ptr<CameraBackend> cameras = CameraBackend::fromEnvironment();
    AppDelegate delegate(settings, build, audio, *cameras, Clock::monotonic());
    if (!display.floatingWindows)
        delegate.windows().disableFloating(display.note);
    QObject::connect(&secondStart, &SecondStart::knocked, &delegate, &AppDelegate::startedAgain);
    delegate.applicationDidFinishLaunching();
    const int code = app.exec();
    bravaLog(QStringLiteral("quit"));
    return code;
}
