#pragma once

#include <QString>

#include <functional>

// Shows a file or folder to the person: selected in the desktop's file manager through
// org.freedesktop.FileManager1 ShowItems on the session bus, or, when no file manager answers
// within the time-out, its folder opened with the desktop's opener (xdg-open). When that cannot
// start or says it failed, the reason is logged and `failed` runs, so the caller can say so.
namespace FolderReveal {

/// Reveals `path` with `opener` as the fallback; returns at once.
void show(const QString &path, std::function<void()> failed = {}, const QString &opener = QStringLiteral("xdg-open"));
/// Time-out of the file manager's answer in milliseconds.
constexpr int kTimeoutMs = 5000;

} // namespace FolderReveal
