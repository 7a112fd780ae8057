#pragma once

#include <QString>

// The camera problems as the menu, the heartbeat and the log show them.
namespace CameraTexts {
inline QString notAllowed() { return QStringLiteral("Webcam not allowed — Run Setup Again"); }
inline QString noneFound() { return QStringLiteral("No usable webcam found"); }
inline QString busy() { return QStringLiteral("Webcam is busy (another app may be using it)"); }
inline QString inputRejected() { return QStringLiteral("Webcam input rejected"); }
inline QString outputRejected() { return QStringLiteral("Webcam output rejected"); }
inline QString failedToStart() { return QStringLiteral("Webcam failed to start"); }
} // namespace CameraTexts
