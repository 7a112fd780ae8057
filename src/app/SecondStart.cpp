#include "SecondStart.h"

#include "BravaLog.h"

#include <QCryptographicHash>
#include <QLocalSocket>
#include <QStandardPaths>
#include <QTimer>

namespace {
constexpr char kWord[] = "show\n";
constexpr qint64 kWordLength = sizeof(kWord) - 1;
} // namespace

SecondStart::SecondStart(const QString &dataDir, QObject *parent)
    : QObject(parent)
{
    // Sockets' paths are short (108 bytes): the folder is named by its digest.
    QString runtime = QStandardPaths::writableLocation(QStandardPaths::RuntimeLocation);
    if (runtime.isEmpty())
        runtime = QStandardPaths::writableLocation(QStandardPaths::TempLocation);
    const QByteArray digest = QCryptographicHash::hash(dataDir.toUtf8(), QCryptographicHash::Sha256).toHex().left(16);
    m_name = runtime + QStringLiteral("/brava-recorder-") + QString::fromLatin1(digest);
    m_server.setSocketOptions(QLocalServer::UserAccessOption);
    connect(&m_server, &QLocalServer::newConnection, this, &SecondStart::answer);
}

bool SecondStart::listen()
{
    // The agent's lock is held: a socket left at this path is a crashed copy's.
    QLocalServer::removeServer(m_name);
    if (m_server.listen(m_name))
        return true;
    bravaLog(QStringLiteral("a second start cannot reach this agent (") + m_server.errorString() + QLatin1Char(')'));
    return false;
}

bool SecondStart::knock(int waitMs)
{
    QLocalSocket door;
    door.connectToServer(m_name);
    if (!door.waitForConnected(waitMs))
        return false;
    door.write(kWord, kWordLength);
    return door.waitForBytesWritten(waitMs);
}

void SecondStart::answer()
{
    while (QLocalSocket *visitor = m_server.nextPendingConnection()) {
        connect(visitor, &QLocalSocket::disconnected, visitor, &QObject::deleteLater);
        QTimer::singleShot(5000, visitor, [visitor] { visitor->abort(); }); // one that never says anything
        connect(visitor, &QLocalSocket::readyRead, this, [this, visitor] {
            // One short word, nothing else: anything longer is no knock of ours.
            if (visitor->bytesAvailable() < kWordLength)
                return;
            const bool ours = visitor->read(kWordLength) == QByteArray(kWord, kWordLength);
            visitor->disconnectFromServer();
            if (ours)
                Q_EMIT knocked();
        });
    }
}
