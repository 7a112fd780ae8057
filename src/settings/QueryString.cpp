#include "QueryString.h"

namespace QueryString {

QString encode(const Items &items)
{
    QByteArray query;
    for (const auto &[key, value] : items) {
        if (!query.isEmpty())
            query += '&';
        query += QUrl::toPercentEncoding(key) + '=' + QUrl::toPercentEncoding(value);
    }
    return QString::fromLatin1(query);
}

QUrl url(const QString &address, const Items &items)
{
    QUrl url(address, QUrl::StrictMode);
    if (!url.isValid() || url.host().isEmpty())
        return QUrl();
    // Strict mode keeps the encoding exactly as made above; no items, no "?".
    url.setQuery(items.isEmpty() ? QString() : encode(items), QUrl::StrictMode);
    return url.isValid() ? url : QUrl();
}

QUrl at(const QString &scheme, const QString &server, const QString &path, const Items &items)
{
    Q_ASSERT(path.startsWith(QLatin1Char('/')));
    // Whatever the address holds must come back as the whole authority, and nothing more.
    QUrl url(scheme + QStringLiteral("://") + server + path, QUrl::StrictMode);
    if (!url.isValid() || url.host().isEmpty() || !url.userInfo().isEmpty() || url.hasQuery() || url.hasFragment()
        || url.path() != path || url.authority().compare(server, Qt::CaseInsensitive) != 0)
        return QUrl();
    url.setQuery(items.isEmpty() ? QString() : encode(items), QUrl::StrictMode);
    return url.isValid() ? url : QUrl();
}

} // namespace QueryString
