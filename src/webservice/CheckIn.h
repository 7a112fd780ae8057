#pragma once

#include <QByteArray>
#include <QString>
#include <QUrl>

#include <functional>

// Tells the event web service which agents are set up and which capture permissions their
// computer grants. It only reports: answers are not read and nothing is retried except by the
// next poke. Main thread only. Does nothing when this build has no event web service.
namespace CheckIn {

/// The three capture permissions as reported.
struct Flags
{
    bool mic = false;
    bool cam = false;
    bool screen = false;
};

/// The shared check-in token.
inline constexpr char token[] = "qz-k7-tallyin-3Rd8Wm";

/// The check-in endpoint; empty without an event web service.
QUrl url();
/// The agent verification endpoint; empty without an event web service.
QUrl verifyURL();

/// Installs where the permissions are read from (default: nothing granted).
void setPermissionSource(std::function<Flags()> source);
/// Starts the repeating forced check-in (every intervalMs, default 60 s).
void start(int intervalMs = 60000);
/// Sends a check-in when one is due: forced, or when the permissions changed.
void poke(bool force);

/// The permission fingerprint: "true"/"false" for mic, cam and screen, joined with nothing.
QString fingerprint(const Flags &flags);
/// The JSON body of a check-in for these permissions and the current settings.
QByteArray body(const Flags &flags);

/// Tests: replaces the monotonic clock (milliseconds; nullptr restores the real one).
void setClockForTesting(std::function<qint64()> clock);
/// Tests: forgets the last check-in and stops the timer.
void resetForTesting();

} // namespace CheckIn
