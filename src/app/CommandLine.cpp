#include "CommandLine.h"

#include "BuildInfo.h"
#include "Maintenance.h"

#include <algorithm>
#include <cstdio>
#include <string_view>

namespace CommandLine {

namespace {

// Qt's own options, which the application object takes (with one dash or two).
bool qtOption(std::string_view word)
{
    static constexpr std::string_view known[] = {
        "platform", "platformpluginpath", "platformtheme", "plugin", "qmljsdebugger", "qwindowgeometry", "qwindowicon",
        "qwindowtitle", "reverse", "session", "display", "geometry", "style", "stylesheet", "widgetcount", "nograb",
        "dograb", "sync", "name", "title", "visual", "ncols", "cmap", "fn", "font", "bg", "background", "fg",
        "foreground", "btn", "button", "im", "inputstyle"};
    while (word.starts_with('-'))
        word.remove_prefix(1);
    word = word.substr(0, word.find('='));
    return std::find(std::begin(known), std::end(known), word) != std::end(known);
}

} // namespace

std::optional<int> answer(int argc, char *argv[])
{
    for (int i = 1; i < argc; ++i) {
        const std::string_view word = argv[i];
        if (word.starts_with("--") && word != "--help" && word != "--version" && !qtOption(word)) {
            std::fprintf(stderr, "brava-recorder: unknown option %s (see --help)\n", argv[i]);
            return 2;
        }
        if (word == "--help" || word == "-h") {
            std::fputs("Usage: brava-recorder [--help] [--version]\n"
                       "\n"
                       "The Brava Recorder agent: records this computer's microphone, its sound output and its\n"
                       "cameras for the event's control room, and uploads every piece. It runs in the desktop\n"
                       "session, with an icon in the tray (and a floating call panel); the first start opens\n"
                       "the setup. On a desktop without a tray, right-click the panel for the menu, or start\n"
                       "brava-recorder again: the menu opens at the pointer.\n"
                       "\n"
                       "Settings: $XDG_CONFIG_HOME/Brava Recorder/settings.ini\n"
                       "Recordings and log.txt: $XDG_DATA_HOME/Brava Recorder\n",
                       stdout);
            return 0;
        }
        if (word == "--version") {
            const BuildInfo build = BuildInfo::read(BuildInfo::besideExecutable());
            const QString text = QStringLiteral("Brava Recorder ") + Maintenance::menuVersion(build.version())
                                 + (build.buildNumber().isEmpty() ? QString() : QStringLiteral(" (build ") + build.buildNumber() + QLatin1Char(')'));
            std::printf("%s\n", text.toUtf8().constData());
            return 0;
        }
    }
    return std::nullopt;
}

int alreadyRunning(bool shown)
{
    std::fputs(shown ? "Brava Recorder already runs for this account: it has been brought forward.\n"
                     : "Brava Recorder already runs for this account.\n",
               stderr);
    return 0;
}

int noDisplay()
{
    std::fputs("brava-recorder: no display to show on: $DISPLAY reaches no X server and $WAYLAND_DISPLAY is not set.\n"
               "Start it from a desktop session (it starts there by itself at login once set up).\n",
               stderr);
    return 1;
}

} // namespace CommandLine
