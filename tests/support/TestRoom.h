#pragma once

#include "ControlRoomServer.h"

#include <QJsonObject>
#include <QTemporaryDir>
#include <QUrlQuery>

struct TestRoomFolder
{
    QTemporaryDir folder; // where the room stores uploads
};

// A control room on loopback with everything it received, ready for tests of the link and the agent.
class TestRoom : private TestRoomFolder, public ControlRoomServer
{
public:
    TestRoom();
    /// host:port.
    QString address() const { return QStringLiteral("127.0.0.1:%1").arg(port); }
    /// Sends one command as JSON text to every agent.
    void send(const QJsonObject &command);
    /// The status messages received, oldest first.
    QList<QJsonObject> statuses() const;

    quint16 port = 0;
    QList<QUrl> urls;
    QStringList texts;
    QList<QByteArray> binaries;
    QList<QUrlQuery> uploads;
    QStringList uploadPaths;
    QList<QUrlQuery> events;
};
