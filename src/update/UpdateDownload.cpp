#include "UpdateDownload.h"

#include "Sha256.h"
#include "UpdatePolicy.h"

#include <QNetworkAccessManager>
#include <QNetworkReply>

UpdateDownload::UpdateDownload(QNetworkAccessManager &net, const QUrl &url, const QString &host, const QString &file,
                               qint64 maxBytes, QObject *parent)
    : QObject(parent)
    , m_net(net)
    , m_url(url)
    , m_host(host)
    , m_file(file)
    , m_max(maxBytes)
    , m_sha(std::make_unique<Sha256>())
{
}

UpdateDownload::~UpdateDownload()
{
    if (m_reply) {
        m_reply->disconnect(this);
        m_reply->abort();
        m_reply->deleteLater();
    }
}

void UpdateDownload::start()
{
    if (!m_file.open(QIODevice::WriteOnly | QIODevice::NewOnly)) {
        QMetaObject::invokeMethod(this, [this] { Q_EMIT finished(m_file.errorString(), QString()); }, Qt::QueuedConnection);
        return;
    }
    QNetworkRequest request(m_url);
    request.setTransferTimeout(kTimeoutMs);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::UserVerifiedRedirectPolicy);
    m_reply = m_net.get(request);
    connect(m_reply, &QNetworkReply::redirected, this, [this](const QUrl &to) {
        if (UpdatePolicy::allowed(to, m_host))
            Q_EMIT m_reply->redirectAllowed();
        else
            fail(QStringLiteral("Invalid download"));
    });
    connect(m_reply, &QNetworkReply::metaDataChanged, this, [this] {
        const QVariant length = m_reply->header(QNetworkRequest::ContentLengthHeader);
        if (length.isValid() && length.toLongLong() > m_max)
            fail(QStringLiteral("Download larger than %1 bytes").arg(m_max));
    });
    connect(m_reply, &QNetworkReply::readyRead, this, &UpdateDownload::receive);
    connect(m_reply, &QNetworkReply::finished, this, &UpdateDownload::done);
}

void UpdateDownload::receive()
{
    while (m_error.isEmpty() && m_reply->bytesAvailable() > 0) {
        const QByteArray piece = m_reply->read(1 << 16);
        m_received += piece.size();
        if (m_received > m_max) {
            fail(QStringLiteral("Download larger than %1 bytes").arg(m_max));
            return;
        }
        m_sha->add(piece.constData(), piece.size());
        if (m_file.write(piece) != piece.size()) {
            fail(m_file.errorString());
            return;
        }
    }
}

void UpdateDownload::fail(const QString &error)
{
    if (m_error.isEmpty())
        m_error = error;
    m_reply->abort(); // finished() follows, and reports m_error
}

void UpdateDownload::done()
{
    if (m_error.isEmpty())
        receive();
    QString error = m_error;
    if (error.isEmpty() && m_reply->error() != QNetworkReply::NoError)
        error = m_reply->errorString();
    if (error.isEmpty()
        && (m_reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt() != 200
            || !UpdatePolicy::allowed(m_reply->url(), m_host)))
        error = QStringLiteral("Invalid download");
    if (error.isEmpty() && !m_file.flush())
        error = m_file.errorString();
    m_file.close();
    m_reply->deleteLater();
    m_reply = nullptr;
    Q_EMIT finished(error, error.isEmpty() ? m_sha->hex() : QString());
}
