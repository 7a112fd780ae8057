#pragma once

#include <QObject>

// The steps of the setup wizard, in order. The one list the controller, the command table, the
// wizard's model and its screens (as SetupStep.Camera and so on) use.
namespace SetupStep {
Q_NAMESPACE

/// One step of the setup wizard; stored as its number in the setting "wizardStep".
enum Step { Welcome = 0, Number = 1, Mic = 2, Audio = 3, Camera = 4, Test = 5, Done = 6 };
Q_ENUM_NS(Step)

/// `value` as a step, clamped into Welcome…Done.
inline Step clamp(int value) { return Step(qBound(int(Welcome), value, int(Done))); }

} // namespace SetupStep
