#include "SegmentPost.h"

#include <QTcpSocket>

SegmentPost::SegmentPost(const QUrl &url, QFile &body, int idleTimeoutMs, QObject *parent)
    : QObject(parent)
    , m_url(url)
    , m_body(body)
    , m_socket(new QTcpSocket(this))
{
    Q_ASSERT(url.isValid() && body.isOpen());
    m_idle.setSingleShot(true);
    m_idle.setInterval(idleTimeoutMs);
    connect(&m_idle, &QTimer::timeout, this, [this] {
        finish(0, QStringLiteral("no progress for %1 s").arg(m_idle.interval() / 1000.0));
    });
    connect(m_socket, &QTcpSocket::connected, this, [this] {
        m_idle.start();
        m_socket->write(head(m_url, m_size));
        feed();
    });
    connect(m_socket, &QTcpSocket::bytesWritten, this, [this] {
        m_idle.start();
        feed();
    });
    connect(m_socket, &QTcpSocket::readyRead, this, [this] {
        m_idle.start();
        readAnswer();
    });
    connect(m_socket, &QTcpSocket::errorOccurred, this, [this] {
        finish(0, m_socket->errorString());
    });
}

SegmentPost::~SegmentPost() = default;

QByteArray SegmentPost::head(const QUrl &url, qint64 length)
{
    const QByteArray target = url.path(QUrl::FullyEncoded).toLatin1() + (url.hasQuery() ? '?' + url.query(QUrl::FullyEncoded).toLatin1() : QByteArray());
    return "POST " + (target.startsWith('/') ? target : '/' + target) + " HTTP/1.1\r\nHost: "
        + url.authority(QUrl::FullyEncoded).toLatin1() + "\r\nContent-Length: " + QByteArray::number(length)
        + "\r\nConnection: close\r\n\r\n";
}

int SegmentPost::statusOf(const QByteArray &head)
{
    // "HTTP/1.1 200 OK": the version, one space, three digits, then a space or the line's end.
    if (!head.startsWith("HTTP/1.") || head.size() < 12 || head.at(8) != ' ')
        return 0;
    const QByteArray code = head.mid(9, 3);
    const char after = head.size() > 12 ? head.at(12) : '\r';
    if (after != ' ' && after != '\r')
        return 0;
    bool ok = false;
    const int status = code.toInt(&ok);
    return ok && status >= 100 && status <= 999 ? status : 0;
}

void SegmentPost::start()
{
    m_size = m_body.size();
    m_buffer.resize(qsizetype(qMin(kBlockBytes, qMax<qint64>(m_size, 1))));
    m_idle.start();
    m_socket->connectToHost(m_url.host(), quint16(m_url.port(80)));
}

void SegmentPost::feed()
{
    // A new block goes in once the socket has taken most of the last, so it never runs dry.
    while (!m_done && m_handed < m_size && m_socket->bytesToWrite() < kBlockBytes / 2) {
        const qint64 n = m_body.read(m_buffer.data(), qMin<qint64>(m_buffer.size(), m_size - m_handed));
        if (n <= 0) {
            finish(0, QStringLiteral("cannot read the file: ") + m_body.errorString());
            return;
        }
        m_socket->write(m_buffer.constData(), n);
        m_handed += n;
    }
    conclude();
}

void SegmentPost::readAnswer()
{
    if (m_status != 0)
        return;
    m_answer += m_socket->read(kMaxHeadBytes - m_answer.size() + 1);
    const qsizetype end = m_answer.indexOf("\r\n\r\n");
    if (end < 0) {
        if (m_answer.size() > kMaxHeadBytes)
            finish(0, QStringLiteral("malformed answer"));
        return;
    }
    m_status = statusOf(m_answer.left(end + 2));
    if (m_status == 0)
        finish(0, QStringLiteral("malformed answer"));
    else if (m_status != 200)
        finish(m_status, QString()); // a refusal needs no more of the body
    else
        conclude();
}

void SegmentPost::conclude()
{
    // Success only once the whole body has left and the answer said so.
    if (m_status != 0 && m_handed == m_size && m_socket->bytesToWrite() == 0)
        finish(m_status, QString());
}

void SegmentPost::finish(int status, const QString &error)
{
    if (m_done)
        return;
    m_done = true;
    m_idle.stop();
    m_socket->disconnect(this);
    m_socket->abort();
    if (auto done = std::move(onDone))
        done(Outcome{status, error});
}
