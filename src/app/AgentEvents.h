#pragma once

#include <QElapsedTimer>
#include <QList>
#include <QObject>
#include <QPair>
#include <QString>

#include <functional>

class QNetworkAccessManager;
class QNetworkReply;
class Settings;

// Tells the control room what the agent did (a call started or ended, help wanted, a call
// reviewed): POST "/event?id&type&…" on the control room's address. Not queued or retried; an event
// the control room did not take is logged and kept as a note for a while, so the agent and the
// operator learn of it. Main thread only.
class AgentEvents
{
public:
    /// Events posted over this network manager, as the settings' agent to its control room.
    AgentEvents(QNetworkAccessManager &net, const Settings &settings);

    /// Posts one event of this type with these extra fields (empty values are left out); an
    /// agent without a number or an address that makes no URL posts nothing.
    void post(const QString &type, const QList<QPair<QString, QString>> &fields = {});

    /// Why the last event was not delivered, until one is or kNoteMs have passed; "" otherwise.
    QString note() const;

    /// Called with the event's type and the reason when the control room did not take an event.
    std::function<void(const QString &type, const QString &reason)> onUndelivered;

    /// Time limit of one post in milliseconds.
    static constexpr int kTimeoutMs = 60000;
    /// How long an undelivered event stays a note.
    static constexpr qint64 kNoteMs = 120000;

private:
    void finished(QNetworkReply *reply, const QString &type);

    QNetworkAccessManager &m_net;
    const Settings &m_settings;
    QString m_note;
    QElapsedTimer m_noteAge;
    QObject m_replies; // the answers' context: none is heard after this object is gone
};
