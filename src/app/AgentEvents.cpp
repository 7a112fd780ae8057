#include "AgentEvents.h"

#include "BravaLog.h"

#include "Config.h"
#include "QueryString.h"

#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QUrl>

AgentEvents::AgentEvents(QNetworkAccessManager &net)
    : m_net(net)
{
}

void AgentEvents::post(const QString &type, const QList<QPair<QString, QString>> &fields)
{
    if (Config::agentID() < 1)
        return;
    QueryString::Items items{{QStringLiteral("id"), QString::number(Config::agentID())}, {QStringLiteral("type"), type}};
    for (const auto &[key, value] : fields)
        if (!value.isEmpty())
            items.append({key, value});
    const QUrl url = QueryString::at(QStringLiteral("http"), Config::server(), QStringLiteral("/event"), items);
    if (!url.isValid())
        return;
    QNetworkRequest request(url);
    request.setTransferTimeout(kTimeoutMs);
    QNetworkReply *reply = m_net.post(request, QByteArray());
    bravaLog(QStringLiteral("event sent: ") + type);
    QObject::connect(reply, &QNetworkReply::finished, reply, &QObject::deleteLater);
}
