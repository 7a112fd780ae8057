#pragma once

#include <QString>

/// Appends "<UTC ISO 8601 time> <message>\n" to log.txt in the data folder, in one write; control
/// characters in the message are written escaped (bravaLogEscaped), so one call is always one line.
/// Never fails to its caller; usable from any thread. The log is never rotated or truncated.
void bravaLog(const QString &message);

/// The line bravaLog writes for a message at the given UTC time (without the line feed).
QString bravaLogLine(const QString &message, const class QDateTime &utc);

/// The message with line breaks and tabs written as \n, \r, \t and every other control character
/// (C0, DEL, C1, the Unicode line and paragraph separators) as \uXXXX.
QString bravaLogEscaped(const QString &message);
