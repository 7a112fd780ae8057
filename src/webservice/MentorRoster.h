#pragma once

#include <QByteArray>
#include <QMap>
#include <QString>

#include <optional>

// The event's mentors by seat number, so a whisper that carries only a seat can show who sent
// it. Fetched from the event web service at launch and whenever an unknown seat whispers; kept in
// memory only. Main thread only.
namespace MentorRoster {

/// Starts one download of the roster unless one is in flight; returns at once.
void fetch();
/// The name stored for a seat, "" when unknown.
QString name(int seat);
/// The whole roster.
QMap<int, QString> map();
/// Whether a download is in flight.
bool fetching();
/// Why the last download left the roster as it was; "" after a success.
QString lastError();

/// Reads an answer: members with a decimal integer key and a string value; nothing when the
/// answer is not a JSON object.
std::optional<QMap<int, QString>> parse(const QByteArray &data);

/// Tests: empties the roster and forgets any download in flight.
void resetForTesting();

} // namespace MentorRoster
