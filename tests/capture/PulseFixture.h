#pragma once

#include <QString>
#include <QVector>

// The test PulseAudio daemon started by scripts/test: brava_out is the default output (its
// monitor is the computer audio), brava_mic a microphone made from that same monitor, so a sound
// played into brava_out reaches both at the same instant; brava_feed feeds brava_usbmic.
namespace PulseFixture {

/// True when scripts/test started the daemon (BRAVA_TEST_PULSE=1).
bool available();
/// Writes mono 48 kHz float samples as a WAV file.
bool writeWav(const QString &path, const QVector<float> &samples);
/// Plays a WAV file into a sink with paplay and waits until it has been played.
bool play(const QString &sink, const QString &wavPath);
/// Starts playing without waiting; returns the process id (0 on failure).
qint64 playDetached(const QString &sink, const QString &wavPath);

} // namespace PulseFixture
