#include "UpdateDownload.h"

#include "Sha256.h"
#include "UpdatePolicy.h"

#include <QNetworkAccessManager>
#include <QNetworkReply>

UpdateDownload::UpdateDownload(QNetworkAccessManager &net, const QUrl &url, const QString &host, const QString &file,
                               qint64 maxBytes, int deadlineMs, QObject *parent)
    : QObject(parent)
    , m_net(net)
    , m_url(url)
    , m_host(host)
    , m_file(file)
    , m_sha(std::make_unique<Sha256>())
    , m_max(maxBytes)
    , m_deadlineMs(deadlineMs)
{
    m_disk.setMaxThreadCount(1);
    m_deadline.setSingleShot(true);
    connect(&m_deadline, &QTimer::timeout, this, [this] {
        fail(QStringLiteral("the download did not finish within %1 s").arg(m_deadlineMs / 1000.0));
    });
}

UpdateDownload::~UpdateDownload()
{
    if (m_reply) {
        m_reply->disconnect(this);
        m_reply->abort();
        m_reply->deleteLater();
    }
    // At most kMaxPiecesInFlight writes of 64 kB are still queued: their jobs use this object.
    m_disk.waitForDone();
}

void UpdateDownload::start()
{
    toDisk([this] { return m_file.open(QIODevice::WriteOnly | QIODevice::NewOnly) ? QString() : m_file.errorString(); });
    QNetworkRequest request(m_url);
    request.setTransferTimeout(kTimeoutMs);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::UserVerifiedRedirectPolicy);
    m_reply = m_net.get(request);
    m_deadline.start(m_deadlineMs);
    // The reply buffers little: while the disk is behind, the socket is not read.
    m_reply->setReadBufferSize(qint64(kMaxPiecesInFlight) << 16);
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
        else if (length.isValid())
            m_total = length.toLongLong();
    });
    connect(m_reply, &QNetworkReply::readyRead, this, &UpdateDownload::receive);
    connect(m_reply, &QNetworkReply::finished, this, &UpdateDownload::done);
}

void UpdateDownload::toDisk(std::function<QString()> job)
{
    ++m_inFlight;
    m_disk.start([this, job = std::move(job)] {
        const QString error = job();
        QMetaObject::invokeMethod(this, [this, error] { written(error); }, Qt::QueuedConnection);
    });
}

void UpdateDownload::receive()
{
    while (m_error.isEmpty() && m_reply && m_inFlight < kMaxPiecesInFlight && m_reply->bytesAvailable() > 0) {
        const QByteArray piece = m_reply->read(1 << 16);
        m_received += piece.size();
        if (m_received > m_max) {
            fail(QStringLiteral("Download larger than %1 bytes").arg(m_max));
            return;
        }
        Q_EMIT progress(m_received, m_total);
        toDisk([this, piece] {
            m_sha->add(piece.constData(), piece.size());
            return m_file.write(piece) == piece.size() ? QString() : m_file.errorString();
        });
    }
}

void UpdateDownload::written(const QString &error)
{
    --m_inFlight;
    if (!error.isEmpty())
        fail(error);
    receive();
    endIfDrained();
}

void UpdateDownload::fail(const QString &error)
{
    if (m_error.isEmpty())
        m_error = error;
    if (m_reply && !m_ended)
        m_reply->abort(); // finished() follows
    endIfDrained();
}

void UpdateDownload::done()
{
    m_ended = true;
    receive();
    endIfDrained();
}

// Once the reply has ended and every piece is on the disk (or a fault stopped the transfer), the
// outcome is decided; the file is flushed and closed on the disk thread before finished().
void UpdateDownload::endIfDrained()
{
    if (!m_ended || m_closing || m_inFlight > 0 || (m_error.isEmpty() && m_reply->bytesAvailable() > 0))
        return;
    m_closing = true;
    m_deadline.stop();
    QString error = m_error;
    if (error.isEmpty() && m_reply->error() != QNetworkReply::NoError)
        error = m_reply->errorString();
    if (error.isEmpty()
        && (m_reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt() != 200
            || !UpdatePolicy::allowed(m_reply->url(), m_host)))
        error = QStringLiteral("Invalid download");
    m_reply->deleteLater();
    m_reply = nullptr;
    m_disk.start([this, error] {
        QString outcome = error;
        if (outcome.isEmpty() && !m_file.flush())
            outcome = m_file.errorString();
        m_file.close();
        const QString sha256 = outcome.isEmpty() ? m_sha->hex() : QString();
        QMetaObject::invokeMethod(this, [this, outcome, sha256] { Q_EMIT finished(outcome, sha256); }, Qt::QueuedConnection);
    });
}
