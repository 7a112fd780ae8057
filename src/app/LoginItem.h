#pragma once

#include <QString>

// Starting the agent at login: an XDG autostart entry for the current user.
namespace LoginItem {

/// `path` as one quoted argument of a desktop entry's Exec key (both levels of escaping).
QString execQuoted(const QString &path);
/// Path of the autostart entry ($XDG_CONFIG_HOME/autostart/brava-recorder.desktop).
QString entryPath();
/// Writes (or refreshes) the autostart entry for this executable; failures are ignored.
void registerCurrentUser();
/// Removes the autostart entry.
void unregister();

} // namespace LoginItem
