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
    // Strict mode keeps the encoding exactly as made above.
    url.setQuery(encode(items), QUrl::StrictMode);
    return url.isValid() ? url : QUrl();
}

} // namespace QueryString
