#include "AgentActions.h"

#include "AgentEvents.h"
#include "BravaLog.h"
#include "DataFolder.h"
#include "Protocol.h"

#include <QDesktopServices>
#include <QUrl>

#include <algorithm>

AgentActions::AgentActions(AgentEvents &events, std::function<qint64()> nowMs)
    : m_events(events)
    , m_nowMs(std::move(nowMs))
{
}

namespace {
QString word(const char *w)
{
    return QString::fromLatin1(w);
}
} // namespace

void AgentActions::toggleCall()
{
    using namespace Protocol::Event;
    qint64 endedSecs = -1;
    if (!m_onCall) {
        m_onCall = true;
        m_callStartMs = m_nowMs();
        m_events.post(word(Protocol::Event::callStart));
    } else {
        m_onCall = false;
        endedSecs = callSeconds(m_nowMs());
        m_events.post(word(callEnd), {{word(secs), QString::number(endedSecs)}});
    }
    if (onCallChanged)
        onCallChanged();
    if (endedSecs >= 0 && onReview)
        onReview(endedSecs);
}

qint64 AgentActions::callSeconds(qint64 nowMs) const
{
    // Whole seconds, cut: 59.9 s is 59. A clock set back reads as 0.
    return std::max<qint64>(0, (nowMs - m_callStartMs) / 1000);
}

qint64 AgentActions::callSeconds() const
{
    return m_onCall ? callSeconds(m_nowMs()) : 0;
}

void AgentActions::rateCall()
{
    if (onReview)
        onReview(0);
}

void AgentActions::snapSale()
{
    if (onSale)
        onSale();
}

void AgentActions::postReview(qint64 callSecs, const QString &outcome, const QString &ctype, const QString &why)
{
    using namespace Protocol::Event;
    m_events.post(word(review), {{word(Protocol::Event::outcome), outcome},
                                 {word(Protocol::Event::ctype), ctype},
                                 {word(Protocol::Event::why), why},
                                 {word(secs), QString::number(callSecs)}});
}

void AgentActions::needHelp()
{
    m_events.post(word(Protocol::Event::help));
    if (onConfirm)
        onConfirm(QStringLiteral("Help sent — coaches alerted"));
}

void AgentActions::openFolder()
{
    // Where the folder is, said in any case: a desktop without a file manager opens nothing.
    const QString folder = DataFolder::dataDir();
    const bool opened = QDesktopServices::openUrl(QUrl::fromLocalFile(folder));
    if (!opened)
        bravaLog(QStringLiteral("cannot open the backup folder ") + folder);
    if (onConfirm)
        onConfirm((opened ? QStringLiteral("Backup folder: ") : QStringLiteral("Cannot open the backup folder: ")) + folder);
}
