#include "ReleaseFeed.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cmath>

namespace {

bool readString(const QJsonObject &o, const char *key, QString *out, QString *error)
{
    const QJsonValue v = o.value(QLatin1String(key));
    if (!v.isString()) {
        *error = QStringLiteral("feed key \"%1\" is missing or not text").arg(QLatin1String(key));
        return false;
    }
    *out = v.toString();
    return true;
}

std::optional<Release> readRelease(const QJsonValue &value, QString *error)
{
    if (!value.isObject()) {
        *error = QStringLiteral("feed release is not an object");
        return std::nullopt;
    }
    const QJsonObject o = value.toObject();
    Release r;
    QString url;
    if (!readString(o, "product", &r.product, error) || !readString(o, "platform", &r.platform, error)
        || !readString(o, "version", &r.version, error) || !readString(o, "url", &url, error)
        || !readString(o, "sha256", &r.sha256, error))
        return std::nullopt;
    r.url = QUrl(url, QUrl::StrictMode);
    if (!r.url.isValid()) {
        *error = QStringLiteral("feed release url is not a URL");
        return std::nullopt;
    }
    const QJsonValue enabled = o.value(QLatin1String("enabled"));
    if (!enabled.isBool()) {
        *error = QStringLiteral("feed key \"enabled\" is missing or not a boolean");
        return std::nullopt;
    }
    r.enabled = enabled.toBool();
    return r;
}

} // namespace

std::optional<ReleaseFeed> ReleaseFeed::decode(const QByteArray &json, QString *error)
{
    QJsonParseError parse;
    const QJsonDocument doc = QJsonDocument::fromJson(json, &parse);
    if (!doc.isObject()) {
        *error = parse.error != QJsonParseError::NoError ? parse.errorString() : QStringLiteral("feed is not an object");
        return std::nullopt;
    }
    const QJsonObject o = doc.object();
    ReleaseFeed feed;
    const QJsonValue schema = o.value(QLatin1String("schema"));
    const double number = schema.toDouble(0.5);
    if (!schema.isDouble() || number != std::trunc(number) || std::abs(number) > 1e9) {
        *error = QStringLiteral("feed key \"schema\" is missing or not an integer");
        return std::nullopt;
    }
    feed.schema = int(number);
    if (!readString(o, "edition", &feed.edition, error))
        return std::nullopt;
    const QJsonValue releases = o.value(QLatin1String("releases"));
    if (!releases.isArray()) {
        *error = QStringLiteral("feed key \"releases\" is missing or not an array");
        return std::nullopt;
    }
    for (const QJsonValue &v : releases.toArray()) {
        std::optional<Release> r = readRelease(v, error);
        if (!r)
            return std::nullopt;
        feed.releases.append(*r);
    }
    return feed;
}

std::optional<Release> ReleaseFeed::choose(const QString &product, const QString &platform) const
{
    for (const Release &r : releases) {
        if (r.product == product && r.platform == platform && r.enabled)
            return r;
    }
    return std::nullopt;
}
