#pragma once

struct AvahiPoll;

// The Avahi client library's event-loop interface served by the Qt event loop of the thread
// that creates it (socket notifiers and timers), so Avahi callbacks arrive on that thread.
class AvahiQtPoll
{
public:
    AvahiQtPoll();
    ~AvahiQtPoll();
    AvahiQtPoll(const AvahiQtPoll &) = delete;
    AvahiQtPoll &operator=(const AvahiQtPoll &) = delete;

    /// The table to hand to avahi_client_new; valid while this object lives.
    const AvahiPoll *poll() const;

private:
    AvahiPoll *m_poll;
};
