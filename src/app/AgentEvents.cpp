#include "AgentEvents.h"

#include "Config.h"
#include "Protocol.h"
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
    QueryString::Items items{{QLatin1String(Protocol::Event::id), QString::number(Config::agentID())},
                             {QLatin1String(Protocol::Event::type), type}};
    for (const auto &[key, value] : fields)
        if (!value.isEmpty())
            items.append({key, value});
    const QUrl url = QueryString::at(QStringLiteral("http"), Config::server(), QLatin1String(Protocol::Path::event), items);
    if (!url.isValid())
        return;
    QNetworkRequest request(url);
    request.setTransferTimeout(kTimeoutMs);
    QNetworkReply *reply = m_net.post(request, QByteArray());
    QObject::connect(reply, &QNetworkReply::finished, reply, &QObject::deleteLater);
}
