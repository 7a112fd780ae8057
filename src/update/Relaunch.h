#pragma once

#include <QString>

// Starting this program again after it has quit: a detached /bin/sh that waits until the old
// process is gone (polling every 0.2 s), then starts the executable. Paths are quoted for the
// shell, so a folder name with spaces, quotes or "$(…)" starts that file and nothing else.
namespace Relaunch {

/// `text` as one single-quoted shell word ('it'\''s').
QString shellQuoted(const QString &text);
/// The script that waits for process `pid` to end, then starts `executable`.
QString script(qint64 pid, const QString &executable);
/// Starts the script detached; false when the shell cannot be started.
bool start(qint64 pid, const QString &executable);
/// True when the build number on disk is newer than the running one (both compared as versions).
bool newBuild(const QString &onDisk, const QString &running);

} // namespace Relaunch
