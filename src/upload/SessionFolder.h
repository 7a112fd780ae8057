#pragma once

#include <QString>

// The folder name under writing/ and pending/ that stands for a recording session: the session
// itself, with "%", "/", NUL and other control characters written as %XX, a leading "." as %2E,
// and "%" alone for the empty session. Any text the control room sends stays one folder inside the
// data folder. A name longer than a file name may be (kMaxFolderBytes) is shortened to a cut
// prefix, "%h" and a hash of the whole session; the full text is then kept in the folder's
// kSessionNote file (make() writes it). Used by the segment writers and the upload queue.
namespace SessionFolder {

/// Longest folder name in UTF-8 bytes that name() writes unshortened.
constexpr int kMaxFolderBytes = 255;
/// Hidden file beside the segments of a shortened session folder, holding the session in UTF-8.
constexpr const char *kSessionNote = ".session";

/// The folder name of `session`.
QString name(const QString &session);
/// The session the folder at `folderPath` (a path, or a bare folder name) stands for: read from
/// its kSessionNote for a shortened name, decoded from the name otherwise (the reverse of name()).
QString sessionOf(const QString &folderPath);
/// Creates `parent`/name(session) with its kSessionNote when the name is shortened; returns the
/// folder's path, or "" with the reason in `error`.
QString make(const QString &parent, const QString &session, QString *error = nullptr);
/// Removes the session folder at `path` when nothing but its kSessionNote is left in it; true when
/// it is gone. Only where no one may be adding a file to it.
bool removeIfEmpty(const QString &path);

} // namespace SessionFolder
