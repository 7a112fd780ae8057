#pragma once

#include <QList>
#include <QPair>
#include <QString>

class QNetworkAccessManager;
class Settings;

// Tells the control room what the agent did (a call started or ended, help wanted): POST
// "/event?id&type&…" on the control room's address. Fire and forget; main thread only.
class AgentEvents
{
public:
    /// Events posted over this network manager, as the settings' agent to its control room.
    AgentEvents(QNetworkAccessManager &net, const Settings &settings);

    /// Posts one event of this type with these extra fields (empty values are left out); an
    /// agent without a number or an address that makes no URL posts nothing.
    void post(const QString &type, const QList<QPair<QString, QString>> &fields = {});

    /// Time limit of one post in milliseconds.
    static constexpr int kTimeoutMs = 60000;

private:
    QNetworkAccessManager &m_net;
    const Settings &m_settings;
};
