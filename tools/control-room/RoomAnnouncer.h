#pragma once

#include <QString>

struct AvahiThreadedPoll;
struct AvahiClient;
struct AvahiEntryGroup;

// Announces the room over DNS-SD through the Avahi daemon, so that agents' setup finds it by
// name. Runs Avahi's own poll thread; without a daemon it says why and the room goes on.
class RoomAnnouncer
{
public:
    RoomAnnouncer();
    ~RoomAnnouncer();
    /// Announces `name` at `port`; false with the reason in `why` when no daemon answers.
    bool announce(const QString &name, quint16 port, QString *why);

private:
    friend struct AnnouncerEvents;
    void publish(AvahiClient *client);
    void takeNextName();

    AvahiThreadedPoll *m_poll = nullptr;
    AvahiClient *m_client = nullptr;
    AvahiEntryGroup *m_group = nullptr;
    QByteArray m_name;
    quint16 m_port = 0;
};
