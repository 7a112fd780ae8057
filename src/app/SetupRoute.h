#pragma once

#include "SetupStep.h"

#include <QObject>

#include <optional>

class Settings;

// The one place that decides when the agent goes back to the setup wizard and at which step:
// each reason maps to a step (or to where the wizard was left), the step is stored in the
// setting "wizardStep", logged, and announced through setupNeeded. Main thread only.
class SetupRoute : public QObject
{
    Q_OBJECT
public:
    /// Why the agent needs setup.
    enum class Reason {
        NotSetUp,             ///< setup was never finished: where the wizard was left
        Released,             ///< the control room released this agent number: where it was left
        MicRefused,           ///< the microphone is refused: the microphone step
        ComputerAudioRefused, ///< the computer audio is refused: the computer-audio step
        CameraRefused,        ///< the cameras may not be opened by this user: the camera step
    };
    Q_ENUM(Reason)

    /// Routes that store the step in `settings`.
    explicit SetupRoute(Settings &settings, QObject *parent = nullptr);

    /// The step a reason sends the agent to; none means the step stored when the wizard was left.
    static std::optional<SetupStep::Step> stepFor(Reason reason);
    /// Sends the agent to setup: stores the step (when the reason has one), logs, announces.
    void need(Reason reason);

Q_SIGNALS:
    /// The agent must go through setup again, at `step` (also stored as "wizardStep").
    void setupNeeded(SetupStep::Step step);

private:
    Settings &m_settings;
};
