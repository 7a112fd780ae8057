#pragma once

#include <QString>

// Where the agent keeps its files: the data folder $XDG_DATA_HOME/Brava Recorder (segments being
// written, pending uploads, the log) and the settings file $XDG_CONFIG_HOME/Brava Recorder/settings.ini,
// each folder readable by this user only (recorded calls are nobody else's on a shared computer).
// Paths only; nothing here reads a setting.
namespace DataFolder {

/// Creates the folder `path` (with parents) readable by this user only, unless it exists;
/// failures are ignored.
void makePrivate(const QString &path);
/// The data folder, created for this user only (with parents); creation failures are ignored.
QString dataDir();
/// A sub-folder of the data folder, created; creation failures are ignored.
QString dir(const QString &name);
/// The path of a sub-folder of the data folder, not created (no disk access).
QString pathOf(const QString &name);
/// Path of the settings file (not created).
QString settingsFilePath();

} // namespace DataFolder
