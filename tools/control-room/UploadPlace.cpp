#include "UploadPlace.h"

#include "Protocol.h"
#include "StrictInt.h"

#include <QRegularExpression>

namespace {
QString value(const QUrlQuery &q, const char *key)
{
    return q.queryItemValue(QLatin1String(key), QUrl::FullyDecoded);
}

bool whole(const QRegularExpression &pattern, const QString &text)
{
    return pattern.match(text).hasMatch();
}
} // namespace

bool UploadPlace::sessionOk(const QString &session)
{
    static const QRegularExpression ok(QStringLiteral("^[A-Za-z0-9_+%-][A-Za-z0-9_.+%-]{0,63}$"));
    return whole(ok, session);
}

std::optional<int> UploadPlace::agentNumber(const QString &text)
{
    return parseStrictInt(text, 1, 110);
}

std::optional<UploadPlace> UploadPlace::fromQuery(const QUrlQuery &q, QString *why)
{
    namespace U = Protocol::UploadQuery;
    const auto refuse = [why](const char *key) {
        *why = QStringLiteral("missing or wrong \"%1\"").arg(QLatin1String(key));
        return std::nullopt;
    };
    UploadPlace p;
    if (const auto n = agentNumber(value(q, U::id)))
        p.agent = *n;
    else
        return refuse(U::id);
    p.session = value(q, U::session);
    if (!sessionOk(p.session))
        return refuse(U::session);
    const QString t = value(q, U::track), tk = value(q, U::take), ix = value(q, U::index), fin = value(q, U::final), ex = value(q, U::ext);
    static const QRegularExpression track(QStringLiteral("^(mic|sys|room|cam[234]?)$")), take(QStringLiteral("^[0-9]{1,19}$")),
        index(QStringLiteral("^[0-9]{1,9}$"));
    if (!whole(track, t))
        return refuse(U::track);
    if (!whole(take, tk))
        return refuse(U::take);
    if (!whole(index, ix))
        return refuse(U::index);
    if (fin != QLatin1String("0") && fin != QLatin1String("1"))
        return refuse(U::final);
    if (ex != QLatin1String("m4a") && ex != QLatin1String("mp4"))
        return refuse(U::ext);
    p.take = tk.toLongLong();
    p.index = ix.toInt();
    p.folder = QStringLiteral("agent%1/%2").arg(p.agent).arg(p.session);
    p.file = t + QLatin1Char('_') + tk + QLatin1Char('_') + ix + (fin == QLatin1String("1") ? QStringLiteral("_final") : QString()) + QLatin1Char('.') + ex;
    return p;
}

std::optional<UploadPlace> UploadPlace::fromPath(const QString &path)
{
    // Read back into a query and named again: only what the room itself would have written matches.
    static const QRegularExpression piece(QStringLiteral("^agent([0-9]{1,3})/([^/]+)/([a-z0-9]+)_([0-9]+)_([0-9]+)(_final)?\\.([a-z0-9]+)$"));
    const auto m = piece.match(path);
    if (!m.hasMatch())
        return std::nullopt;
    namespace U = Protocol::UploadQuery;
    QUrlQuery q;
    q.setQueryItems({{QLatin1String(U::id), m.captured(1)}, {QLatin1String(U::session), QString::fromLatin1(QUrl::toPercentEncoding(m.captured(2)))}, {QLatin1String(U::track), m.captured(3)},
                     {QLatin1String(U::take), m.captured(4)}, {QLatin1String(U::index), m.captured(5)},
                     {QLatin1String(U::final), m.captured(6).isEmpty() ? QStringLiteral("0") : QStringLiteral("1")}, {QLatin1String(U::ext), m.captured(7)}});
    QString why;
    auto p = fromQuery(q, &why);
    if (!p || p->folder + QLatin1Char('/') + p->file != path)
        return std::nullopt;
    return p;
}
