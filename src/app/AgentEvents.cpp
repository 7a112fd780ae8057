#include "AgentEvents.h"

#include "BravaLog.h"
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
    QObject::connect(reply, &QNetworkReply::finished, &m_replies, [this, reply, type] { finished(reply, type); });
}

void AgentEvents::finished(QNetworkReply *reply, const QString &type)
{
    reply->deleteLater();
    const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    if (reply->error() == QNetworkReply::NoError && status >= 200 && status < 300) {
        bravaLog(QStringLiteral("event sent: ") + type);
        m_note.clear();
        return;
    }
    const QString reason = status > 0 ? QStringLiteral("the control room answered %1").arg(status) : reply->errorString();
    m_note = QStringLiteral("event \"%1\" not delivered: %2").arg(type, reason);
    m_noteAge.start();
    bravaLog(m_note);
    if (onUndelivered)
        onUndelivered(type, reason);
}

QString AgentEvents::note() const
{
    return m_note.isEmpty() || m_noteAge.hasExpired(kNoteMs) ? QString() : m_note;
}
