#include "TestRoom.h"

#include <QJsonDocument>

TestRoom::TestRoom()
    : ControlRoomServer(QDir(folder.path()))
{
    quiet = true;
    port = listen(0, QHostAddress::LocalHost);
    connect(this, &ControlRoomServer::agentConnected, this, [this](const QUrl &url) { urls.append(url); });
    connect(this, &ControlRoomServer::textReceived, this, [this](const QString &text) { texts.append(text); });
    connect(this, &ControlRoomServer::binaryReceived, this, [this](const QByteArray &frame) { binaries.append(frame); });
    connect(this, &ControlRoomServer::uploaded, this, [this](const QUrlQuery &q, const QString &path) { uploads.append(q), uploadPaths.append(path); });
    connect(this, &ControlRoomServer::eventReceived, this, [this](const QUrlQuery &q) { events.append(q); });
}

void TestRoom::send(const QJsonObject &command)
{
    sendText(QString::fromUtf8(QJsonDocument(command).toJson(QJsonDocument::Compact)));
}

QList<QJsonObject> TestRoom::statuses() const
{
    QList<QJsonObject> out;
    for (const QString &text : texts) {
        const QJsonObject o = QJsonDocument::fromJson(text.toUtf8()).object();
        if (o.value(QStringLiteral("type")) == QStringLiteral("status"))
            out.append(o);
    }
    return out;
}
