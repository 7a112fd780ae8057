#include "AgentEvents.h"

#include "Protocol.h"
#include "Settings.h"
#include "QueryString.h"

#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QUrl>

AgentEvents::AgentEvents(QNetworkAccessManager &net, const Settings &settings)
    : m_net(net)
    , m_settings(settings)
{
}

void AgentEvents::post(const QString &type, const QList<QPair<QString, QString>> &fields)
{
    if (m_settings.agentID() < 1)
        return;
    QueryString::Items items{{QLatin1String(Protocol::Event::id), QString::number(m_settings.agentID())},
                             {QLatin1String(Protocol::Event::type), type}};
    for (const auto &[key, value] : fields)
        if (!value.isEmpty())
            items.append({key, value});
    const QUrl url = QueryString::at(QStringLiteral("http"), m_settings.server(), QLatin1String(Protocol::Path::event), items);
    if (!url.isValid())
        return;
    QNetworkRequest request(url);
    request.setTransferTimeout(kTimeoutMs);
    QNetworkReply *reply = m_net.post(request, QByteArray());
    QObject::connect(reply, &QNetworkReply::finished, reply, &QObject::deleteLater);
}
