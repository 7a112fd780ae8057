#include "SetupRoute.h"

#include "BravaLog.h"
#include "Settings.h"

#include <QMetaEnum>

SetupRoute::SetupRoute(Settings &settings, QObject *parent)
    : QObject(parent)
    , m_settings(settings)
{
}

std::optional<SetupStep::Step> SetupRoute::stepFor(Reason reason)
{
    switch (reason) {
    case Reason::NotSetUp:
    case Reason::Released:
        break;
    case Reason::MicRefused:
        return SetupStep::Mic;
    case Reason::ComputerAudioRefused:
        return SetupStep::Audio;
    case Reason::CameraRefused:
        return SetupStep::Camera;
    }
    return std::nullopt;
}

void SetupRoute::need(Reason reason)
{
    if (const std::optional<SetupStep::Step> step = stepFor(reason))
        m_settings.setWizardStep(*step);
    const SetupStep::Step step = SetupStep::clamp(m_settings.wizardStep());
    bravaLog(QStringLiteral("setup needed (%1): the setup wizard opens at step %2")
                 .arg(QLatin1String(QMetaEnum::fromType<Reason>().valueToKey(int(reason))))
                 .arg(int(step)));
    Q_EMIT setupNeeded(step);
}
