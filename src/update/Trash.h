#pragma once

#include <QString>

// The freedesktop Trash, through GIO: the home Trash for what lies on the home's file system, a
// Trash at the top of another one where the desktop keeps it. Nothing is ever deleted: what cannot
// be trashed stays where it is.
namespace Trash {

/// Moves `path` (a file or a whole folder) to the Trash; on failure says why in `error`.
bool move(const QString &path, QString *error);

} // namespace Trash
