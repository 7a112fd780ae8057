#pragma once

#include "TestLiterals.h"

#include <QFile>
#include <QProcess>
#include <QVector>

#include <cmath>

// Which private sound server of scripts/test a test binary runs against: the PulseAudio daemon,
// or (BRAVA_TEST_SERVER=pipewire, the second CTest entry) PipeWire through its PulseAudio
// service. Each has brava_out as the default output (its monitor is the computer audio), brava_mic
// a microphone made from that same monitor, so a sound played into brava_out reaches both at the
// same instant, and brava_feed feeding brava_usbmic.
namespace TestSoundServer {

/// Points the client library at the chosen server; called first in main, before any client connects.
inline void select()
{
    if (qgetenv("BRAVA_TEST_SERVER") != "pipewire")
        return;
    const QByteArray server = qgetenv("BRAVA_TEST_PIPEWIRE_SERVER");
    qputenv("BRAVA_TEST_PULSE", server.isEmpty() ? "0" : "1");
    qputenv("PULSE_SERVER", server);
    qputenv("BRAVA_TEST_PULSE_PID", qgetenv("BRAVA_TEST_PIPEWIRE_PID"));
    qputenv("BRAVA_TEST_SOUND_DIR", qgetenv("BRAVA_TEST_PIPEWIRE_DIR"));
}

/// True when scripts/test started the server (BRAVA_TEST_PULSE=1); without it the tests skip.
inline bool available() { return qEnvironmentVariableIntValue("BRAVA_TEST_PULSE") == 1; }

/// Kills the server as a crash would and starts it again on the same socket with the same
/// devices; false when scripts/test did not say how.
inline bool restart()
{
    const QString script = qEnvironmentVariable("BRAVA_TEST_SOUND_SERVER_SCRIPT"), dir = qEnvironmentVariable("BRAVA_TEST_SOUND_DIR");
    return !script.isEmpty() && !dir.isEmpty() && QProcess::execute(script, {QStringLiteral("restart"), dir}) == 0;
}

/// Plays 0.5 s of silence, one 1 kHz cycle at 0.9 (it reaches 0.3 three samples in) and 0.5 s of
/// silence into `sink` (48 kHz mono float, written to `file` first) and waits until it has been played.
inline bool playClick(const QString &sink, const QString &file)
{
    QVector<float> s(48000, 0.0f);
    for (int i = 0; i < 48; ++i)
        s[24000 + i] = 0.9f * float(std::sin(2 * M_PI * i / 48.0));
    QFile f(file);
    const bool written = f.open(QIODevice::WriteOnly) && f.write(reinterpret_cast<const char *>(s.constData()), 48000 * 4) == 48000 * 4;
    f.close();
    QProcess p;
    p.start(QStringLiteral("paplay"), strings({"--raw", "--format=float32le", "--rate=48000", "--channels=1", "-d"}) << sink << file);
    return written && p.waitForFinished(30000) && p.exitCode() == 0;
}

} // namespace TestSoundServer
