#pragma once

#include <QString>

/// Appends "<UTC ISO 8601 time> <message>\n" to log.txt in the data folder, in one write.
/// Never fails to its caller; usable from any thread. The log is never rotated or truncated.
void bravaLog(const QString &message);

/// The line bravaLog writes for a message at the given UTC time (without the line feed).
QString bravaLogLine(const QString &message, const class QDateTime &utc);
