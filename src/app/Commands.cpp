#include "Commands.h"

#include "BravaLog.h"
#include "Connection.h"
#include "DataFolder.h"
#include "MentorRoster.h"
#include "Reconciler.h"
#include "Protocol.h"
#include "Recorder.h"
#include "Settings.h"
#include "SetupRoute.h"
#include "TextTools.h"

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
    const QJsonValue v = c.value(QLatin1String(Protocol::Command::seat));
    return v.isDouble() ? v.toInt(0) : 0;
}

} // namespace

Commands::Commands(Recorder &rec, Connection &conn, MentorRoster &roster, Settings &settings, SetupRoute &setup,
                   const std::atomic<bool> &wizardOpen, QObject *parent)
    : QObject(parent)
    , m_rec(rec)
    , m_conn(conn)
    , m_roster(roster)
    , m_settings(settings)
    , m_setup(setup)
    , m_wizardOpen(wizardOpen)
    , m_reconciler(new Reconciler(rec, this))
{
    m_reconciler->canApply = [this] { return m_settings.setupDone() && !m_wizardOpen; };
    // Handed to each take as it starts: a change of quality applies from the next take on.
    m_reconciler->writerSetup = [this] {
        WriterSetup setup;
        setup.writingDir = DataFolder::pathOf(QStringLiteral("writing"));
        setup.videoBitrate = m_settings.videoBitrate();
        return setup;
    };
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
        m_setup.need(blocked == Recorder::Blocked::Microphone ? SetupRoute::Reason::MicRefused
                                                              : SetupRoute::Reason::ComputerAudioRefused);
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
    const QJsonValue typeValue = command.value(QLatin1String(Protocol::type));
    if (!typeValue.isString())
        return;
    const QString type = typeValue.toString();
    if (dispatch(type, command))
        m_refusal.reset(); // an accepted command ends the refusal shown in the heartbeat
}

bool Commands::dispatch(const QString &type, const QJsonObject &command)
{
    namespace C = Protocol::Command;
    Reconciler &r = *m_reconciler;

    if (type == QLatin1String(C::start)) {
        const std::optional<QString> session = optionalString(command, C::session);
        if (session && tooLong(type, C::session, *session, kMaxSession))
            return false;
        r.desiredSession = session;
        apply();
    } else if (type == QLatin1String(C::stop)) {
        r.desiredSession.reset();
        apply();
    } else if (type == QLatin1String(C::listen)) {
        r.wantListen = m_rec.camerasEnabled() && boolArg(command, C::on);
        apply();
    } else if (type == QLatin1String(C::preview)) {
        m_rec.previewing = m_rec.camerasEnabled() && boolArg(command, C::on);
        m_rec.previewHd = boolArg(command, C::hd);
    } else if (type == QLatin1String(C::cameras)) {
        if (boolArg(command, C::on)) {
            m_rec.setCamerasEnabled(true);
        } else {
            r.desiredSession.reset();
            r.wantListen = false;
            m_rec.previewing = false;
            m_rec.setCamerasEnabled(false);
        }
        apply();
        changed();
    } else if (type == QLatin1String(C::whisper)) {
        const QString text = stringArg(command, C::text);
        if (TextTools::trimSpacesAndTabs(text).isEmpty() || tooLong(type, C::text, text, kMaxWhisper))
            return false;
        const int seat = seatArg(command);
        bravaLog(QStringLiteral("whisper from seat %1: %2").arg(seat).arg(text));
        const QString from = m_roster.name(seat);
        if (from.isEmpty())
            m_roster.fetch(); // the card shows now, without a name
        Q_EMIT whisper(text, seat, from);
    } else if (type == QLatin1String(C::setMic)) {
        const std::optional<QString> uid = optionalString(command, C::uid);
        if (!uid || tooLong(type, C::uid, *uid, kMaxUid))
            return false;
        m_settings.setMicUID(*uid);
        m_rec.restartMic();
    } else if (type == QLatin1String(C::setCam)) {
        const QString uid = stringArg(command, C::uid);
        if (tooLong(type, C::uid, uid, kMaxUid))
            return false;
        m_rec.setPreviewCamUID(uid);
    } else if (type == QLatin1String(C::quality)) {
        const QString q = stringArg(command, C::q, QLatin1String(Protocol::Quality::full));
        if (tooLong(type, C::q, q, kMaxQuality))
            return false;
        if (q != m_settings.uploadQuality()) {
            m_settings.setUploadQuality(q);
            bravaLog(QStringLiteral("upload quality set to ") + q);
        }
    } else if (type == QLatin1String(C::release)) {
        release();
    } else if (type == QLatin1String(C::replaced)) {
        changed();
        if (onReplaced)
            onReplaced();
    } else {
        return false; // unknown: not taken
    }
    return true;
}

void Commands::release()
{
    m_reconciler->desiredSession.reset();
    m_reconciler->wantListen = false;
    m_rec.stop(nullptr);
    // The rest does not wait for the recorder to finish stopping.
    m_settings.setAgentID(0);
    m_settings.setSetupDone(false);
    m_conn.close();
    changed();
    m_setup.need(SetupRoute::Reason::Released);
}
