#include "AgentActions.h"

#include "AgentEvents.h"
#include "DataFolder.h"
#include "Protocol.h"

#include <QDesktopServices>
#include <QUrl>

AgentActions::AgentActions(AgentEvents &events)
    : m_events(events)
{
}

void AgentActions::toggleCall()
{
    if (!m_onCall) {
        m_onCall = true;
        m_callStart = QDateTime::currentDateTime();
        m_events.post(QLatin1String(Protocol::Event::callStart));
    } else {
        m_onCall = false;
        const qint64 secs = m_callStart.msecsTo(QDateTime::currentDateTime()) / 1000;
        m_events.post(QLatin1String(Protocol::Event::callEnd), {{QLatin1String(Protocol::Event::secs), QString::number(secs)}});
    }
    if (onCallChanged)
        onCallChanged();
}

qint64 AgentActions::callSeconds() const
{
    return m_onCall ? m_callStart.secsTo(QDateTime::currentDateTime()) : 0;
}

void AgentActions::needHelp()
{
    m_events.post(QLatin1String(Protocol::Event::help));
    if (onConfirm)
        onConfirm(QStringLiteral("Help sent — coaches alerted"));
}

void AgentActions::openFolder()
{
    QDesktopServices::openUrl(QUrl::fromLocalFile(DataFolder::dataDir()));
}
