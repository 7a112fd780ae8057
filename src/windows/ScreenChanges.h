#pragma once

#include <functional>

class QObject;

// The changes of the screens that can leave a window off them or too large for them: a screen
// added or removed, another main screen, or a screen's usable area changed (a panel, a dock, a
// new resolution), screens plugged in later included.
namespace ScreenChanges {

/// Calls `changed` after each such change, while `context` lives.
void follow(QObject *context, const std::function<void()> &changed);

} // namespace ScreenChanges
