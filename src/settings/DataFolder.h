#pragma once

#include <QString>

// Where the agent keeps its files: the data folder $XDG_DATA_HOME/Brava Recorder (segments being
// written, pending uploads, the log) and the settings file $XDG_CONFIG_HOME/Brava Recorder/settings.ini.
// Paths only; nothing here reads a setting.
namespace DataFolder {

/// The data folder, created (with parents); creation failures are ignored.
QString dataDir();
/// A sub-folder of the data folder, created; creation failures are ignored.
QString dir(const QString &name);
/// The path of a sub-folder of the data folder, not created (no disk access).
QString pathOf(const QString &name);
/// Path of the settings file (not created).
QString settingsFilePath();

} // namespace DataFolder
