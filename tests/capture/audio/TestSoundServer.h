#pragma once

#include <QProcess>
#include <QtGlobal>

// Which private sound server of scripts/test a test binary runs against: the PulseAudio daemon,
// or (BRAVA_TEST_SERVER=pipewire, the second CTest entry) PipeWire through its PulseAudio
// service. Called first in main, before any client connects.
namespace TestSoundServer {

inline bool onPipeWire() { return qgetenv("BRAVA_TEST_SERVER") == "pipewire"; }

/// Points the client library and the fixture at the chosen server; without it the tests skip.
inline void select()
{
    if (!onPipeWire())
        return;
    const QByteArray server = qgetenv("BRAVA_TEST_PIPEWIRE_SERVER");
    qputenv("BRAVA_TEST_PULSE", server.isEmpty() ? "0" : "1");
    qputenv("PULSE_SERVER", server);
    qputenv("BRAVA_TEST_PULSE_PID", qgetenv("BRAVA_TEST_PIPEWIRE_PID"));
    qputenv("BRAVA_TEST_SOUND_DIR", qgetenv("BRAVA_TEST_PIPEWIRE_DIR"));
}

/// Kills the server as a crash would and starts it again on the same socket with the same
/// devices; false when scripts/test did not say how.
inline bool restart()
{
    const QString script = qEnvironmentVariable("BRAVA_TEST_SOUND_SERVER_SCRIPT");
    const QString dir = qEnvironmentVariable("BRAVA_TEST_SOUND_DIR");
    return !script.isEmpty() && !dir.isEmpty()
        && QProcess::execute(script, {QStringLiteral("restart"), dir}) == 0;
}

} // namespace TestSoundServer
