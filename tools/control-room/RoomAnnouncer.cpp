#include "RoomAnnouncer.h"

#include "Protocol.h"

#include <avahi-client/client.h>
#include <avahi-client/publish.h>
#include <avahi-common/alternative.h>
#include <avahi-common/error.h>
#include <avahi-common/malloc.h>
#include <avahi-common/thread-watch.h>

struct AnnouncerEvents
{
    static void client(AvahiClient *c, AvahiClientState state, void *self)
    {
        auto *a = static_cast<RoomAnnouncer *>(self);
        switch (state) {
        case AVAHI_CLIENT_S_RUNNING:
            a->publish(c);
            break;
        case AVAHI_CLIENT_S_COLLISION:
        case AVAHI_CLIENT_S_REGISTERING: // the host's own name changes: announced again once it runs
            if (a->m_group)
                avahi_entry_group_reset(a->m_group);
            break;
        case AVAHI_CLIENT_FAILURE:
            if (avahi_client_errno(c) == AVAHI_ERR_DISCONNECTED)
                a->reconnect(c);
            else
                a->report(QStringLiteral("not announced any more (") + QString::fromUtf8(avahi_strerror(avahi_client_errno(c))) + u')');
            break;
        case AVAHI_CLIENT_CONNECTING:
            break;
        }
    }
    static void group(AvahiEntryGroup *g, AvahiEntryGroupState state, void *self)
    {
        auto *a = static_cast<RoomAnnouncer *>(self);
        if (state == AVAHI_ENTRY_GROUP_ESTABLISHED) {
            a->report(QStringLiteral("announced as \"") + QString::fromUtf8(a->m_name) + QStringLiteral("\" (") + QLatin1String(Protocol::serviceType) + u')');
        } else if (state == AVAHI_ENTRY_GROUP_COLLISION) {
            a->takeNextName();
            a->publish(avahi_entry_group_get_client(g));
        } else if (state == AVAHI_ENTRY_GROUP_FAILURE) {
            a->report(QStringLiteral("not announced (") + QString::fromUtf8(avahi_strerror(avahi_client_errno(avahi_entry_group_get_client(g)))) + u')');
        }
    }
};

RoomAnnouncer::RoomAnnouncer() = default;

RoomAnnouncer::~RoomAnnouncer()
{
    if (m_poll)
        avahi_threaded_poll_stop(m_poll);
    if (m_client)
        avahi_client_free(m_client); // frees the group too
    if (m_poll)
        avahi_threaded_poll_free(m_poll);
}

bool RoomAnnouncer::announce(const QString &name, quint16 port, QString *why)
{
    // A DNS-SD instance name holds at most 63 bytes: cut whole characters, never inside one.
    QString cut = name;
    while (cut.toUtf8().size() > 63)
        cut.chop(cut.size() > 1 && cut.back().isLowSurrogate() ? 2 : 1);
    m_name = cut.toUtf8();
    m_port = port;
    m_poll = avahi_threaded_poll_new();
    int error = 0;
    // Without a daemon yet the client waits for one; without a system bus it fails here.
    if (m_poll)
        m_client = avahi_client_new(avahi_threaded_poll_get(m_poll), AVAHI_CLIENT_NO_FAIL, &AnnouncerEvents::client, this, &error);
    if (!m_client) {
        *why = QString::fromUtf8(avahi_strerror(error));
        return false;
    }
    if (avahi_client_get_state(m_client) == AVAHI_CLIENT_CONNECTING)
        report(QStringLiteral("not announced yet (no Avahi daemon): agents type this computer's address in their setup; "
                              "announced as soon as the daemon runs"));
    avahi_threaded_poll_start(m_poll);
    return true;
}

void RoomAnnouncer::reconnect(AvahiClient *gone)
{
    // Everything made with the old client (the entry group too) goes with it; the new one waits
    // for the daemon and announces the same name again once the daemon runs.
    report(QStringLiteral("the Avahi daemon went away: announced again when it is back"));
    avahi_client_free(gone);
    m_group = nullptr;
    int error = 0;
    m_client = avahi_client_new(avahi_threaded_poll_get(m_poll), AVAHI_CLIENT_NO_FAIL, &AnnouncerEvents::client, this, &error);
    if (!m_client)
        report(QStringLiteral("not announced any more (") + QString::fromUtf8(avahi_strerror(error)) + u')');
}

void RoomAnnouncer::report(const QString &line) const
{
    if (onReport)
        onReport(line);
}

void RoomAnnouncer::publish(AvahiClient *client)
{
    if (!m_group)
        m_group = avahi_entry_group_new(client, &AnnouncerEvents::group, this);
    if (!m_group)
        return;
    // A name already taken on the network shows later as the group's collision; one taken on this
    // computer is refused here at once. Either way the next free name ("name #2") is taken.
    for (int tries = 0; tries < 100; ++tries) {
        const int added = avahi_entry_group_add_service(m_group, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC, AvahiPublishFlags(0),
                                                        m_name.constData(), Protocol::serviceType, nullptr, nullptr, m_port, nullptr);
        if (added == 0)
            avahi_entry_group_commit(m_group);
        if (added != AVAHI_ERR_COLLISION)
            return;
        takeNextName();
    }
}

void RoomAnnouncer::takeNextName()
{
    char *other = avahi_alternative_service_name(m_name.constData());
    m_name = other;
    avahi_free(other);
    avahi_entry_group_reset(m_group);
}
