#pragma once

#include <QString>

// Starting the agent at login: an XDG autostart entry for the current user.
namespace LoginItem {

/// `path` as one quoted argument of a desktop entry's Exec key (both levels of escaping).
QString execQuoted(const QString &path);
/// Path of the autostart entry ($XDG_CONFIG_HOME/autostart/brava-recorder.desktop).
QString entryPath();
/// False for an executable that lives where it does not last: under the temporary folder or the
/// updater's work folders (a verified build started from where it was checked).
bool lastingPlace(const QString &exe);
/// Writes (or refreshes) the autostart entry for `exe` (this executable when empty), unless it
/// lives where it does not last (then the entry is left as it is, and the log says so); failures
/// are ignored.
void registerCurrentUser(const QString &exe = QString());
/// Removes the autostart entry.
void unregister();

} // namespace LoginItem
