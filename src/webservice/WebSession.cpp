#include "WebSession.h"

#include "BuildInfo.h"

namespace WebSession {

QUrl endpoint(const BuildInfo &build, const QString &path, const QueryString::Items &query)
{
    Q_ASSERT(path.startsWith(QLatin1Char('/')) && !path.contains(QLatin1Char('?')));
    const QString base = build.webServiceURL();
    if (base.isEmpty())
        return QUrl();
    return QueryString::url(base + path, query);
}

} // namespace WebSession
