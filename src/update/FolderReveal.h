#pragma once

#include <QString>

// Shows a file or folder to the person: selected in the desktop's file manager through
// org.freedesktop.FileManager1 ShowItems on the session bus, or, when no file manager answers
// within the time-out, its folder opened with the desktop's default handler.
namespace FolderReveal {

/// Reveals `path`; returns at once.
void show(const QString &path);
/// Time-out of the file manager's answer in milliseconds.
constexpr int kTimeoutMs = 5000;

} // namespace FolderReveal
