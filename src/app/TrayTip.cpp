#include "TrayTip.h"

#include <QStringList>

namespace TrayTip {

Look look(const StatusMenu::State &s)
{
    if (!s.connected || s.replaced)
        return Look::NotConnected;
    if (!s.lastError.isEmpty())
        return Look::Error;
    if (s.isRecording)
        return Look::Recording;
    if (s.onCall)
        return Look::OnCall;
    if (s.live)
        return Look::Listening;
    return Look::Connected;
}

QString iconPath(Look look)
{
    switch (look) {
    case Look::NotConnected:
        return QStringLiteral(":/icons/not-connected.svg");
    case Look::Connected:
        break;
    case Look::Recording:
        return QStringLiteral(":/icons/recording.svg");
    case Look::Listening:
        return QStringLiteral(":/icons/listening.svg");
    case Look::OnCall:
        return QStringLiteral(":/icons/on-call.svg");
    case Look::Error:
        return QStringLiteral(":/icons/error.svg");
    }
    return QStringLiteral(":/icons/connected.svg");
}

QString text(const StatusMenu::State &s, const Facts &f)
{
    QStringList lines;
    if (!f.flash.isEmpty())
        lines.append(f.flash);
    lines.append(StatusMenu::title(s).trimmed());
    if (s.replaced)
        lines.append(QStringLiteral("Link down: agent number in use on another computer"));
    else if (s.connected)
        lines.append(QStringLiteral("Link up: connected to the control room at ") + f.address);
    else if (f.address.isEmpty())
        lines.append(QStringLiteral("Link down: no control room set (Run Setup Again…)"));
    else
        lines.append(QStringLiteral("Link down: not connected to the control room at ") + f.address
                     + (f.linkFailure.isEmpty() ? QString() : QStringLiteral(" (") + f.linkFailure + QLatin1Char(')')));
    if (!s.isRecording)
        lines.append(QStringLiteral("Not recording"));
    else
        lines.append(f.session ? QStringLiteral("Recording session “%1”").arg(*f.session) : QStringLiteral("Recording"));
    if (s.live)
        lines.append(QStringLiteral("Listening live"));
    if (f.previewing && s.connected) // frames go nowhere while the link is down
        lines.append(QStringLiteral("Camera preview on"));
    if (s.onCall && f.callSeconds >= 0)
        lines.append(QStringLiteral("On a call %1:%2").arg(f.callSeconds / 60).arg(f.callSeconds % 60, 2, 10, QLatin1Char('0')));
    if (!s.lastError.isEmpty())
        lines.append(QStringLiteral("Error: ") + s.lastError);
    return lines.join(QLatin1Char('\n'));
}

} // namespace TrayTip
