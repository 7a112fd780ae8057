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
        if (state == AVAHI_CLIENT_S_RUNNING)
            static_cast<RoomAnnouncer *>(self)->publish(c);
    }
    static void group(AvahiEntryGroup *g, AvahiEntryGroupState state, void *self)
    {
        if (state != AVAHI_ENTRY_GROUP_COLLISION)
            return;
        auto *a = static_cast<RoomAnnouncer *>(self);
        a->takeNextName();
        a->publish(avahi_entry_group_get_client(g));
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
    if (m_poll)
        m_client = avahi_client_new(avahi_threaded_poll_get(m_poll), AvahiClientFlags(0), &AnnouncerEvents::client, this, &error);
    if (!m_client) {
        *why = QString::fromUtf8(avahi_strerror(error));
        return false;
    }
    avahi_threaded_poll_start(m_poll);
    return true;
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
