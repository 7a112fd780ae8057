#include "WebSession.h"

#include "Config.h"

namespace WebSession {

QUrl endpoint(const QString &path)
{
    const QString base = Config::webServiceURL();
    if (base.isEmpty())
        return QUrl();
    return QUrl(base + path);
}

} // namespace WebSession
