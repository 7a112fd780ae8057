#include "AvahiBrowser.h"

#include "AvahiQtPoll.h"

#include <QTimer>
#include <QtEndian>

#include <avahi-client/client.h>
#include <avahi-client/lookup.h>
#include <avahi-common/address.h>
#include <avahi-common/error.h>

struct AvahiBrowser::Resolve
{
    Service service;
    AvahiServiceResolver *resolver = nullptr;
    QTimer *deadline = nullptr;
};

// The C callbacks of the Avahi client library, turned into the browser's reports.
struct AvahiEvents
{
    static void client(AvahiClient *client, AvahiClientState state, void *userdata)
    {
        auto *self = static_cast<AvahiBrowser *>(userdata);
        if (state != AVAHI_CLIENT_FAILURE || self->m_client != client)
            return;
        // The daemon went away: everything made with this client is gone with it.
        self->m_lastError = QString::fromUtf8(avahi_strerror(avahi_client_errno(client)));
        self->dropClient();
        if (self->onStopped)
            self->onStopped();
    }

    static void browse(AvahiServiceBrowser *browser, AvahiIfIndex interface, AvahiProtocol protocol,
                       AvahiBrowserEvent event, const char *name, const char *type, const char *domain,
                       AvahiLookupResultFlags, void *userdata)
    {
        auto *self = static_cast<AvahiBrowser *>(userdata);
        if (browser != self->m_browser)
            return;
        switch (event) {
        case AVAHI_BROWSER_NEW:
        case AVAHI_BROWSER_REMOVE: {
            const ServiceBrowser::Service service{QString::fromUtf8(name), QString::fromUtf8(type),
                                                  QString::fromUtf8(domain), int(interface), int(protocol)};
            const auto &report = event == AVAHI_BROWSER_NEW ? self->onFound : self->onRemoved;
            if (report)
                report(service);
            break;
        }
        case AVAHI_BROWSER_FAILURE:
            self->m_lastError = QString::fromUtf8(avahi_strerror(avahi_client_errno(self->m_client)));
            avahi_service_browser_free(self->m_browser);
            self->m_browser = nullptr;
            if (self->onStopped)
                self->onStopped();
            break;
        case AVAHI_BROWSER_ALL_FOR_NOW:
        case AVAHI_BROWSER_CACHE_EXHAUSTED:
            break;
        }
    }

    static void resolve(AvahiServiceResolver *resolver, AvahiIfIndex, AvahiProtocol, AvahiResolverEvent event,
                        const char *, const char *, const char *, const char *, const AvahiAddress *address,
                        uint16_t port, AvahiStringList *, AvahiLookupResultFlags, void *userdata)
    {
        auto *self = static_cast<AvahiBrowser *>(userdata);
        AvahiBrowser::Resolve *r = nullptr;
        for (AvahiBrowser::Resolve *candidate : self->m_resolves)
            if (candidate->resolver == resolver)
                r = candidate;
        if (!r)
            return;
        QList<QHostAddress> addresses;
        if (event == AVAHI_RESOLVER_FOUND && address) {
            if (address->proto == AVAHI_PROTO_INET) {
                addresses.append(QHostAddress(qFromBigEndian<quint32>(address->data.ipv4.address)));
            } else if (address->proto == AVAHI_PROTO_INET6) {
                addresses.append(QHostAddress(address->data.ipv6.address));
            }
        }
        const ServiceBrowser::Service service = r->service;
        self->finishResolve(r);
        if (event == AVAHI_RESOLVER_FOUND) {
            if (self->onResolved)
                self->onResolved(service, addresses, int(port));
        } else if (self->onResolveFailed) {
            self->onResolveFailed(service);
        }
    }
};

AvahiBrowser::AvahiBrowser()
    : m_poll(std::make_unique<AvahiQtPoll>())
{
}

AvahiBrowser::~AvahiBrowser()
{
    dropClient();
}

bool AvahiBrowser::ensureClient()
{
    if (m_client)
        return true;
    int error = 0;
    m_client = avahi_client_new(m_poll->poll(), AvahiClientFlags(0), AvahiEvents::client, this, &error);
    if (!m_client) {
        m_lastError = QString::fromUtf8(avahi_strerror(error));
        return false;
    }
    m_lastError.clear();
    return true;
}

void AvahiBrowser::dropClient()
{
    stop();
    if (m_client)
        avahi_client_free(m_client);
    m_client = nullptr;
}

bool AvahiBrowser::browse(const QString &type, const QString &domain)
{
    if (!ensureClient())
        return false;
    // A fresh browser reports every current service again.
    if (m_browser)
        avahi_service_browser_free(m_browser);
    m_browser = avahi_service_browser_new(m_client, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC, type.toUtf8().constData(),
                                          domain.toUtf8().constData(), AvahiLookupFlags(0), AvahiEvents::browse, this);
    if (!m_browser) {
        m_lastError = QString::fromUtf8(avahi_strerror(avahi_client_errno(m_client)));
        return false;
    }
    return true;
}

void AvahiBrowser::stop()
{
    if (m_browser)
        avahi_service_browser_free(m_browser);
    m_browser = nullptr;
    while (!m_resolves.isEmpty())
        finishResolve(m_resolves.first());
}

void AvahiBrowser::resolve(const Service &service, int timeoutMs)
{
    if (!m_client) {
        if (onResolveFailed)
            onResolveFailed(service);
        return;
    }
    auto *r = new Resolve;
    r->service = service;
    r->resolver = avahi_service_resolver_new(m_client, AvahiIfIndex(service.interface), AvahiProtocol(service.protocol),
                                             service.name.toUtf8().constData(), service.type.toUtf8().constData(),
                                             service.domain.toUtf8().constData(), AVAHI_PROTO_UNSPEC,
                                             AvahiLookupFlags(0), AvahiEvents::resolve, this);
    if (!r->resolver) {
        delete r;
        if (onResolveFailed)
            onResolveFailed(service);
        return;
    }
    r->deadline = new QTimer;
    r->deadline->setSingleShot(true);
    QObject::connect(r->deadline, &QTimer::timeout, r->deadline, [this, r] {
        const Service s = r->service;
        finishResolve(r);
        if (onResolveFailed)
            onResolveFailed(s);
    });
    r->deadline->start(timeoutMs);
    m_resolves.append(r);
}

void AvahiBrowser::finishResolve(Resolve *r)
{
    m_resolves.removeOne(r);
    if (r->resolver)
        avahi_service_resolver_free(r->resolver);
    if (r->deadline) {
        r->deadline->stop();
        QObject::disconnect(r->deadline, nullptr, nullptr, nullptr);
        r->deadline->deleteLater();
    }
    delete r;
}
