#include "RoomProbe.h"

#include "QueryString.h"

#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QUrl>

RoomProbe::RoomProbe(QNetworkAccessManager &net, QObject *parent)
    : QObject(parent)
    , m_net(net)
{
}

bool RoomProbe::probe(const QString &host, int port, std::function<void(bool)> done)
{
    // An announced name is a host and nothing more: no path or query slips in through it.
    const QUrl url = QueryString::at(QStringLiteral("http"), host + QLatin1Char(':') + QString::number(port), QStringLiteral("/"), {});
    if (!url.isValid() || port < 0 || port > 65535)
        return false;
    QNetworkRequest request(url);
    request.setTransferTimeout(timeoutMs);
    // A redirect is an answer too; it is not followed.
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::ManualRedirectPolicy);
    QNetworkReply *reply = m_net.get(request);
    connect(reply, &QNetworkReply::finished, this, [reply, done = std::move(done)] {
        reply->deleteLater();
        done(reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).isValid());
    });
    return true;
}
