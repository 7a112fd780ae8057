#pragma once

#include <QString>

#include <functional>

struct AvahiThreadedPoll;
struct AvahiClient;
struct AvahiEntryGroup;

// Announces the room over DNS-SD through the Avahi daemon, so that agents' setup finds it by
// name. Runs Avahi's own poll thread; without a daemon it says why and the room goes on. A daemon
// that goes away and comes back (restarted, upgraded) gets the announcement again.
class RoomAnnouncer
{
public:
    RoomAnnouncer();
    ~RoomAnnouncer();
    /// Announces `name` at `port`; false with the reason in `why` when the system bus cannot be used.
    bool announce(const QString &name, quint16 port, QString *why);

    /// A line for the operator each time the announcement changes: the name the network took
    /// (another room may hold the one asked for), the daemon gone or a failure. Called on
    /// Avahi's thread; set before announce().
    std::function<void(const QString &line)> onReport;

private:
    friend struct AnnouncerEvents;
    void publish(AvahiClient *client);
    void takeNextName();
    void reconnect(AvahiClient *gone);
    void report(const QString &line) const;

    AvahiThreadedPoll *m_poll = nullptr;
    AvahiClient *m_client = nullptr;
    AvahiEntryGroup *m_group = nullptr;
    QByteArray m_name;
    quint16 m_port = 0;
};
