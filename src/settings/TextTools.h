#pragma once

#include <QString>

// Small text helpers shared by the settings, the commands and the log.
namespace TextTools {

/// Trims leading and trailing spaces and tabs (not newlines).
QString trimSpacesAndTabs(const QString &text);
/// `text` for a log line: control characters as \xNN (newlines too), at most `max` characters.
QString printable(const QString &text, int max = 200);

} // namespace TextTools
