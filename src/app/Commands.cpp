#include "Commands.h"

#include "BravaLog.h"
#include "Config.h"
#include "Connection.h"
#include "MentorRoster.h"
#include "Reconciler.h"
#include "Recorder.h"

#include <QJsonValue>

namespace {

// Arguments are taken only when they have the expected JSON type; otherwise the default.
QString stringArg(const QJsonObject &c, const char *key, const QString &fallback = QString())
{
    const QJsonValue v = c.value(QLatin1String(key));
    return v.isString() ? v.toString() : fallback;
}

std::optional<QString> optionalString(const QJsonObject &c, const char *key)
{
    const QJsonValue v = c.value(QLatin1String(key));
    return v.isString() ? std::optional<QString>(v.toString()) : std::nullopt;
}

bool boolArg(const QJsonObject &c, const char *key)
{
    const QJsonValue v = c.value(QLatin1String(key));
    return v.isBool() && v.toBool();
}

// A seat is a JSON number with an integral value that fits an int; anything else is seat 0.
int seatArg(const QJsonObject &c)
{
    const QJsonValue v = c.value(QStringLiteral("seat"));
    return v.isDouble() ? v.toInt(0) : 0;
}

} // namespace

Commands::Commands(Recorder &rec, Connection &conn, MentorRoster &roster, const std::atomic<bool> &wizardOpen,
                   QObject *parent)
    : QObject(parent)
    , m_rec(rec)
    , m_conn(conn)
    , m_roster(roster)
    , m_wizardOpen(wizardOpen)
    , m_reconciler(new Reconciler(rec, this))
{
    m_reconciler->canApply = [this] { return Config::setupDone() && !m_wizardOpen; };
    m_reconciler->onFinished = [this] { applyFinished(); };
}

Commands::~Commands() = default;

bool Commands::tooLong(const QString &type, const char *key, const QString &value, qsizetype limit)
{
    if (value.size() <= limit)
        return false;
    m_refusal = QStringLiteral("command %1: \"%2\" of %3 characters refused (at most %4)")
                    .arg(type, QLatin1String(key)).arg(value.size()).arg(limit);
    bravaLog(*m_refusal);
    m_refused = true;
    return true;
}

void Commands::changed()
{
    if (onChanged)
        onChanged();
}

void Commands::apply()
{
    m_reconciler->kick();
}

void Commands::linkChanged()
{
    if (!m_conn.connected() && m_reconciler->wantListen) {
        m_reconciler->wantListen = false;
        apply();
    }
}

void Commands::applyFinished()
{
    changed();
    const Recorder::Blocked blocked = m_rec.blocked();
    if (m_rec.running() && m_rec.lastError() && blocked != Recorder::Blocked::None && !m_wizardOpen) {
        Config::setWizardStep(blocked == Recorder::Blocked::Microphone ? 2 : 3);
        if (onSetupNeeded)
            onSetupNeeded();
    }
}

bool Commands::live() const
{
    return m_reconciler->wantListen && m_rec.running();
}

bool Commands::busy() const
{
    return m_reconciler->applying() || m_reconciler->desiredSession.has_value();
}

void Commands::handle(const QJsonObject &command)
{
    const QJsonValue typeValue = command.value(QStringLiteral("type"));
    if (!typeValue.isString())
        return;
    const QString type = typeValue.toString();
    m_refused = false;
    dispatch(type, command);
    if (!m_refused)
        m_refusal.reset(); // an accepted command ends the refusal shown in the heartbeat
}

void Commands::dispatch(const QString &type, const QJsonObject &command)
{
    Reconciler &r = *m_reconciler;

    if (type == QLatin1String("start")) {
        const std::optional<QString> session = optionalString(command, "session");
        if (session && tooLong(type, "session", *session, kMaxSession))
            return;
        r.desiredSession = session;
        apply();
    } else if (type == QLatin1String("stop")) {
        r.desiredSession.reset();
        apply();
    } else if (type == QLatin1String("listen")) {
        r.wantListen = m_rec.camerasEnabled() && boolArg(command, "on");
        apply();
    } else if (type == QLatin1String("preview")) {
        m_rec.previewing = m_rec.camerasEnabled() && boolArg(command, "on");
        m_rec.previewHd = boolArg(command, "hd");
    } else if (type == QLatin1String("cameras")) {
        if (boolArg(command, "on")) {
            m_rec.setCamerasEnabled(true);
        } else {
            r.desiredSession.reset();
            r.wantListen = false;
            m_rec.previewing = false;
            m_rec.setCamerasEnabled(false);
        }
        apply();
        changed();
    } else if (type == QLatin1String("whisper")) {
        const QString text = stringArg(command, "text");
        if (Config::trimSpacesAndTabs(text).isEmpty() || tooLong(type, "text", text, kMaxWhisper))
            return;
        const int seat = seatArg(command);
        const QString from = m_roster.name(seat);
        if (from.isEmpty())
            m_roster.fetch(); // the card shows now, without a name
        if (onWhisper)
            onWhisper(text, seat, from);
    } else if (type == QLatin1String("setMic")) {
        const std::optional<QString> uid = optionalString(command, "uid");
        if (!uid || tooLong(type, "uid", *uid, kMaxUid))
            return;
        Config::setMicUID(*uid);
        m_rec.restartMic();
    } else if (type == QLatin1String("setCam")) {
        const QString uid = stringArg(command, "uid");
        if (!tooLong(type, "uid", uid, kMaxUid))
            m_rec.setPreviewCamUID(uid);
    } else if (type == QLatin1String("quality")) {
        const QString q = stringArg(command, "q", QStringLiteral("full"));
        if (!tooLong(type, "q", q, kMaxQuality) && q != Config::uploadQuality()) {
            Config::setUploadQuality(q);
            bravaLog(QStringLiteral("upload quality set to ") + q);
        }
    } else if (type == QLatin1String("release")) {
        release();
    } else if (type == QLatin1String("replaced")) {
        changed();
        if (onReplaced)
            onReplaced();
    }
}

void Commands::release()
{
    m_reconciler->desiredSession.reset();
    m_reconciler->wantListen = false;
    m_rec.stop(nullptr);
    // The rest does not wait for the recorder to finish stopping.
    Config::setAgentID(0);
    Config::setSetupDone(false);
    m_conn.disconnect();
    changed();
    if (onSetupNeeded)
        onSetupNeeded();
}
