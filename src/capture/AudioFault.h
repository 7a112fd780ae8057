#pragma once

#include <QString>

// What keeps the sound sources from recording, as a value; the words are made by text() where
// the fault is shown (the menu, the heartbeat's "error").
enum class AudioFault {
    None,                 ///< every source that should be open is open
    ServerSilent,         ///< the sound server does not answer
    MicBlocked,           ///< the sound server refuses this program the microphone
    NoMic,                ///< no microphone is listed, or the chosen one cannot be opened
    MicUnavailable,       ///< the microphone's stream ended (unplugged)
    ComputerAudioBlocked, ///< the sound server refuses this program the computer audio
    ComputerAudioStopped, ///< the computer audio's stream ended
    NoOutput,             ///< no sound output whose monitor could be recorded
};

namespace AudioFaults {

/// The fault as the menu and the control room show it; "" for None.
inline QString text(AudioFault fault)
{
    switch (fault) {
    case AudioFault::None:
        break;
    case AudioFault::ServerSilent:
        return QStringLiteral("Sound server not answering");
    case AudioFault::MicBlocked:
        return QStringLiteral("Microphone blocked — re-run setup on this computer");
    case AudioFault::NoMic:
        return QStringLiteral("No microphone found");
    case AudioFault::MicUnavailable:
        return QStringLiteral("Microphone unavailable");
    case AudioFault::ComputerAudioBlocked:
        return QStringLiteral("Computer audio blocked — re-run setup on this computer");
    case AudioFault::ComputerAudioStopped:
        return QStringLiteral("Computer audio stopped");
    case AudioFault::NoOutput:
        return QStringLiteral("No audio output found");
    }
    return QString();
}

} // namespace AudioFaults
