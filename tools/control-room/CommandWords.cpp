#include "CommandWords.h"

#include "Protocol.h"
#include "StrictInt.h"
#include "UploadPlace.h"

#include <QJsonDocument>

namespace {
QString L(const char *word)
{
    return QLatin1String(word);
}

std::optional<bool> onOff(const QString &word)
{
    if (word == QLatin1String("on"))
        return true;
    if (word == QLatin1String("off"))
        return false;
    return std::nullopt;
}

std::optional<QJsonObject> refuse(QString *why, const QString &reason)
{
    *why = reason;
    return std::nullopt;
}
} // namespace

namespace CommandWords {

std::optional<QJsonObject> fromWords(const QStringList &w, QString *why)
{
    using namespace Protocol::Command;
    const QString cmd = w.value(0);
    QJsonObject o{{L(Protocol::type), cmd}};
    if (cmd == L(start))
        o.insert(L(session), w.value(1));
    else if (cmd == L(listen) || cmd == L(cameras) || cmd == L(preview)) {
        const auto flag = onOff(w.value(1));
        if (!flag)
            return refuse(why, QStringLiteral("say on or off"));
        o.insert(L(on), *flag);
        if (cmd == L(preview) && !w.value(2).isEmpty() && w.value(2) != QLatin1String("hd"))
            return refuse(why, QStringLiteral("preview on|off [hd]"));
        if (cmd == L(preview))
            o.insert(L(hd), w.value(2) == QLatin1String("hd"));
    } else if (cmd == L(quality))
        o.insert(L(q), w.value(1));
    else if (cmd == L(whisper)) {
        const auto s = parseStrictInt(w.value(1), 0, 9999);
        if (!s)
            return refuse(why, QStringLiteral("whisper <seat> <text>"));
        o.insert(L(seat), *s);
        o.insert(L(text), w.mid(2).join(QLatin1Char(' ')));
    } else if (cmd == L(setCam) || cmd == L(setMic)) {
        if (w.value(1).isEmpty())
            return refuse(why, cmd + QStringLiteral(" <uid>: name the device"));
        o.insert(L(uid), w.value(1));
    }
    return checked(o, why);
}

std::optional<QByteArray> json(const QString &text, QString *why)
{
    QJsonParseError error;
    const QJsonDocument d = QJsonDocument::fromJson(text.trimmed().toUtf8(), &error);
    if (error.error != QJsonParseError::NoError || !d.isObject()) {
        *why = QStringLiteral("json takes one JSON object, {...}");
        return std::nullopt;
    }
    return d.toJson(QJsonDocument::Compact);
}

std::optional<QJsonObject> checked(const QJsonObject &c, QString *why)
{
    using namespace Protocol::Command;
    const QString type = c.value(L(Protocol::type)).toString();
    const auto isBool = [&](const char *key) { return !c.contains(L(key)) || c.value(L(key)).isBool(); };
    QJsonObject out{{L(Protocol::type), type}};
    const auto copy = [&](const char *key) {
        if (c.contains(L(key)))
            out.insert(L(key), c.value(L(key)));
    };
    if (type == L(start)) {
        if (!UploadPlace::sessionOk(c.value(L(session)).toString()))
            return refuse(why, QStringLiteral("a session is 1 to 64 letters, digits or _.+-% and does not start with \".\""));
        copy(session);
    } else if (type == L(stop) || type == L(release)) {
    } else if (type == L(listen) || type == L(cameras) || type == L(preview)) {
        if (!isBool(on) || !isBool(hd))
            return refuse(why, QStringLiteral("\"on\" and \"hd\" are true or false"));
        out.insert(L(on), c.value(L(on)).toBool());
        if (type == L(preview))
            out.insert(L(hd), c.value(L(hd)).toBool());
    } else if (type == L(quality)) {
        const QString q = c.value(L(Protocol::Command::q)).toString();
        if (q != L(Protocol::Quality::low) && q != L(Protocol::Quality::med) && q != L(Protocol::Quality::full))
            return refuse(why, QStringLiteral("quality is low, med or full"));
        copy(Protocol::Command::q);
    } else if (type == L(whisper)) {
        const QString t = c.value(L(text)).toString();
        const double seat = c.value(L(Protocol::Command::seat)).toDouble(-1);
        if (t.trimmed().isEmpty() || t.size() > 500 || seat < 0 || seat > 9999 || seat != int(seat))
            return refuse(why, QStringLiteral("a whisper has a seat (0 to 9999) and a text of 1 to 500 characters"));
        out.insert(L(text), t);
        out.insert(L(Protocol::Command::seat), int(seat));
    } else if (type == L(setCam) || type == L(setMic)) {
        const QString uid = c.value(L(Protocol::Command::uid)).toString();
        if (uid.size() > 300 || (type == L(setMic) && uid.isEmpty()))
            return refuse(why, QStringLiteral("a device uid of at most 300 characters"));
        if (!uid.isEmpty())
            out.insert(L(Protocol::Command::uid), uid);
    } else
        return refuse(why, QStringLiteral("unknown command"));
    return out;
}

QString describe(const QJsonObject &c)
{
    // In the operator's words, with the operator's values as they are.
    using namespace Protocol::Command;
    const QString type = c.value(L(Protocol::type)).toString();
    const bool on = c.value(L(Protocol::Command::on)).toBool();
    if (type == L(start))
        return QStringLiteral("start ") + c.value(L(session)).toString();
    if (type == L(cameras))
        return on ? QStringLiteral("Go Live") : QStringLiteral("End Live");
    if (type == L(listen))
        return on ? QStringLiteral("listen") : QStringLiteral("stop listening");
    if (type == L(preview))
        return on ? (c.value(L(hd)).toBool() ? QStringLiteral("preview in HD") : QStringLiteral("preview")) : QStringLiteral("end preview");
    if (type == L(quality))
        return QStringLiteral("upload quality ") + c.value(L(q)).toString();
    if (type == L(whisper))
        return QStringLiteral("whisper (seat %1): %2").arg(c.value(L(seat)).toInt()).arg(c.value(L(text)).toString());
    if (type == L(setCam) || type == L(setMic))
        return (type == L(setCam) ? QStringLiteral("camera → ") : QStringLiteral("microphone → ")) + c.value(L(uid)).toString(QStringLiteral("the default"));
    if (type == L(release))
        return QStringLiteral("release the number");
    return type;
}

QString usage()
{
    return QStringLiteral(
        "Commands on standard input, to every agent or, with a leading \"@N\", to agent N:\n"
        "  start <session>       record a session (agents must be live: \"cameras on\" first)\n"
        "  stop                  stop recording\n"
        "  cameras on|off        go live / end live (off also stops recording)\n"
        "  listen on|off         live audio of the agent (see the page to hear it)\n"
        "  preview on|off [hd]   camera preview pictures\n"
        "  quality low|med|full  upload quality\n"
        "  whisper <seat> <text> a coaching message from the mentor at <seat>\n"
        "  setCam <uid>          preview this camera\n"
        "  setMic <uid>          record this microphone\n"
        "  release               free the agent number\n"
        "  json {...}            send this JSON object as it is\n"
        "  list                  the connected agents: live, recording and session, what arrived\n"
        "  help                  this list\n"
        "  quit                  stop the room\n");
}

} // namespace CommandWords
