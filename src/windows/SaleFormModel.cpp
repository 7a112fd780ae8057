#include "SaleFormModel.h"

#include "OrderedJson.h"
#include "Protocol.h"

#include <cmath>

namespace SaleFormModel {

QStringList confirmTypes()
{
    return {QStringLiteral("pdf"), QStringLiteral("png"), QStringLiteral("jpg"), QStringLiteral("jpeg"),
            QStringLiteral("heic"), QStringLiteral("webp"), QStringLiteral("gif")};
}

QStringList callTypes()
{
    return {QStringLiteral("m4a"), QStringLiteral("mp3"), QStringLiteral("wav"), QStringLiteral("mp4"),
            QStringLiteral("mov"), QStringLiteral("webm"), QStringLiteral("aac"), QStringLiteral("caf")};
}

QString lead(const QString &typed)
{
    return typed.trimmed();
}

std::optional<qint64> apv(const QString &typed)
{
    if (typed.size() > kMaxApvLength)
        return std::nullopt;
    QString kept;
    for (const QChar c : typed) {
        if (c.isDigit() && c.unicode() < 128)
            kept.append(c);
        else if (c == QLatin1Char('.'))
            kept.append(c);
        else if (c != QLatin1Char('$') && c != QLatin1Char(',') && !c.isSpace())
            return std::nullopt; // "1e9999" is no dollar amount, and neither is "12 USD"
    }
    bool ok = false;
    const double value = kept.toDouble(&ok);
    if (!ok || !std::isfinite(value) || value <= 0 || value > double(kMaxApv))
        return std::nullopt;
    return std::llround(value);
}

QString check(const Entry &e)
{
    if (e.agentID < 1)
        return QStringLiteral("Finish setup first");
    const QString name = lead(e.lead);
    if (name.isEmpty())
        return QStringLiteral("Enter the lead's name");
    if (name.size() > kMaxLeadLength)
        return QStringLiteral("The lead's name is too long (at most %1 characters)").arg(kMaxLeadLength);
    for (const QChar c : name)
        if (c.category() == QChar::Other_Control || c.category() == QChar::Other_Format
            || c == QChar::LineSeparator || c == QChar::ParagraphSeparator)
            return QStringLiteral("The lead's name has a character that can't be sent (a tab or line break?)");
    if (!apv(e.apv))
        return QStringLiteral("Enter the APV (dollar amount)");
    if (!e.hasConfirm)
        return QStringLiteral("Add a confirmation (file or snap)");
    if (e.phone && !e.hasCall)
        return QStringLiteral("Attach the full call recording");
    return QString();
}

QByteArray record(const Entry &e)
{
    using namespace Protocol::Sale;
    const auto word = [](const char *w) { return QString::fromLatin1(w); };
    return OrderedJson()
        .insert(word(id), e.agentID)
        .insert(word(method), word(e.phone ? phone : computer))
        .insert(word(Protocol::Sale::lead), lead(e.lead))
        .insert(word(Protocol::Sale::apv), QJsonValue(apv(e.apv).value_or(0)))
        .insert(word(referral), word(e.referral ? yes : no))
        .toJson();
}

} // namespace SaleFormModel
