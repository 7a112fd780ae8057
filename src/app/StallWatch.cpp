#include "StallWatch.h"

#include "BravaLog.h"

void StallWatch::beat(qint64 nowMs, bool recording)
{
    const qint64 gap = m_last < 0 ? 0 : nowMs - m_last;
    m_last = nowMs;
    if (gap <= kStallMs)
        return;
    const QString seconds = QString::number(double(gap) / 1000.0, 'f', 1);
    if (!recording) {
        bravaLog(QStringLiteral("this computer did not run the recorder for %1 s (suspended or overloaded)").arg(seconds));
        return;
    }
    m_note = QStringLiteral("This computer did not run the recorder for %1 s (suspended or overloaded): the recording "
                            "may have a gap there").arg(seconds);
    m_shownUntil = nowMs + kShowMs;
    bravaLog(m_note);
}

QString StallWatch::note(qint64 nowMs) const
{
    return nowMs < m_shownUntil ? m_note : QString();
}
