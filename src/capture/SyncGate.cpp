#include "SyncGate.h"

#include "BravaLog.h"

#include <QStringList>

SyncGate::SyncGate(Clock &clock)
    : m_clock(clock)
{
}

void SyncGate::reset(bool expectCam)
{
    std::lock_guard lock(m_mutex);
    m_t0.reset();
    m_seen.clear();
    m_readyNs.reset();
    m_expectCam = expectCam;
}

std::optional<MediaTime> SyncGate::t0() const
{
    std::lock_guard lock(m_mutex);
    return m_t0;
}

std::optional<MediaTime> SyncGate::seen(const QString &track) const
{
    std::lock_guard lock(m_mutex);
    const auto it = m_seen.find(track);
    return it == m_seen.end() ? std::nullopt : std::optional<MediaTime>(it->second);
}

bool SyncGate::pass(const QString &track, MediaTime time)
{
    std::lock_guard lock(m_mutex);
    if (!m_t0)
        decide(track, time);
    return m_t0 && m_t0->isValid() && time >= *m_t0; // an invalid start lets nothing through
}

void SyncGate::saw(const QString &track, MediaTime time)
{
    std::lock_guard lock(m_mutex);
    if (!m_t0)
        decide(track, time);
}

void SyncGate::decide(const QString &track, MediaTime time)
{
    m_seen.try_emplace(track, time); // the first sample of a track is never replaced
    const int64_t now = m_clock.nowNs();
    if (!m_readyNs)
        m_readyNs = now;

    const auto has = [this](const char *name) { return m_seen.count(QString::fromLatin1(name)) > 0; };
    const bool audioMissing = !has("mic") || !has("sys");
    const bool camMissing = m_expectCam && !has("cam");
    if ((audioMissing || camMissing) && now - *m_readyNs <= kWaitNs)
        return;

    // Lock: T0 is the latest first time of mic, sys, cam; on a tie the earlier name wins.
    MediaTime t0 = MediaTime::invalid();
    bool chosen = false;
    for (const char *name : {"mic", "sys", "cam"}) {
        const auto it = m_seen.find(QString::fromLatin1(name));
        if (it == m_seen.end())
            continue;
        if (!chosen || t0 < it->second)
            t0 = it->second;
        chosen = true;
    }
    m_t0 = t0;
    if (onLock)
        onLock(t0);

    QStringList missing;
    for (const char *name : {"mic", "sys"})
        if (!has(name))
            missing.append(QString::fromLatin1(name));
    if (camMissing)
        missing.append(QStringLiteral("cam"));
    bravaLog(missing.isEmpty() ? QStringLiteral("sync: all tracks locked to one start")
                               : QStringLiteral("sync: started without ") + missing.join(QStringLiteral(", "))
                                   + QStringLiteral(" (timed out)"));
}
