#include "AgentEvents.h"

#include "Config.h"

#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QUrl>
#include <QUrlQuery>

AgentEvents::AgentEvents(QNetworkAccessManager &net)
    : m_net(net)
{
}

void AgentEvents::post(const QString &type, const QList<QPair<QString, QString>> &fields)
{
    if (Config::agentID() < 1)
        return;
    QUrl url(QStringLiteral("http://") + Config::server() + QStringLiteral("/event"));
    QUrlQuery query;
    query.addQueryItem(QStringLiteral("id"), QString::number(Config::agentID()));
    query.addQueryItem(QStringLiteral("type"), type);
    for (const auto &[key, value] : fields)
        if (!value.isEmpty())
            query.addQueryItem(key, value);
    url.setQuery(query);
    if (!url.isValid())
        return;
    QNetworkRequest request(url);
    request.setTransferTimeout(kTimeoutMs);
    QNetworkReply *reply = m_net.post(request, QByteArray());
    QObject::connect(reply, &QNetworkReply::finished, reply, &QObject::deleteLater);
}
