#include "WebSession.h"

#include "Config.h"

#include <QCoreApplication>
#include <QNetworkAccessManager>

namespace WebSession {

QNetworkAccessManager &shared()
{
    static auto *session = new QNetworkAccessManager(QCoreApplication::instance());
    return *session;
}

QUrl endpoint(const QString &path)
{
    const QString base = Config::webServiceURL();
    if (base.isEmpty())
        return QUrl();
    return QUrl(base + path);
}

} // namespace WebSession
