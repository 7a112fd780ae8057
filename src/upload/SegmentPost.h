#pragma once

#include <QByteArray>
#include <QFile>
#include <QObject>
#include <QTimer>
#include <QUrl>

#include <functional>

class QTcpSocket;

// One HTTP/1.1 POST of a file to a plain-HTTP address, on a socket of its own. The body goes from
// the file to the socket in large blocks through one reused buffer (never the whole file in
// memory), and the next block follows as soon as the socket has taken most of the previous one, so
// the body moves at the speed of the network rather than of a request layer's small hand-overs.
// The answer's status line is all that is read. Lives on the thread that made it.
class SegmentPost : public QObject
{
    Q_OBJECT
public:
    /// How a post ended.
    struct Outcome
    {
        int status = 0; ///< the HTTP status; 0 when no answer arrived
        QString error;  ///< why no answer arrived; "" with a status
    };

    /// Bytes read from the file and handed to the socket at a time.
    static constexpr qint64 kBlockBytes = 1 << 20;
    /// Largest answer head read before the answer counts as malformed.
    static constexpr qsizetype kMaxHeadBytes = 16 * 1024;

    /// A post of the open file `body` to `url` that fails when nothing moves for `idleTimeoutMs`.
    SegmentPost(const QUrl &url, QFile &body, int idleTimeoutMs, QObject *parent = nullptr);
    ~SegmentPost() override;

    /// Connects and sends; onDone is called once, later, on this object's thread.
    void start();
    /// Called once with the outcome; the object may be deleted from inside it.
    std::function<void(const Outcome &)> onDone;

    /// The request head for this address and body length.
    static QByteArray head(const QUrl &url, qint64 length);
    /// The status code of a complete answer head ("HTTP/1.x NNN ..."); 0 when it is not one.
    static int statusOf(const QByteArray &head);

private:
    void feed();
    void readAnswer();
    void conclude();
    void finish(int status, const QString &error);

    QUrl m_url;
    QFile &m_body;
    QTcpSocket *m_socket;
    QTimer m_idle;
    QByteArray m_buffer;
    QByteArray m_answer;
    qint64 m_size = 0;
    qint64 m_handed = 0;
    int m_status = 0;
    bool m_done = false;
};
