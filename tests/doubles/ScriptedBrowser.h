#pragma once

#include "RoomDiscovery.h"

// A DNS-SD source the test scripts by hand: it records what discovery asks of it and reports
// whatever the test tells it to (rooms still have to answer over HTTP).
class ScriptedBrowser : public ServiceBrowser
{
public:
    bool available = true;
    int browses = 0;
    QList<int> resolveLimits;
    bool browse(const QString &type, const QString &domain) override
    {
        Q_ASSERT(type == QLatin1String("_bravacontrol._tcp") && domain == QLatin1String("local"));
        ++browses;
        return available;
    }
    void stop() override {}
    void resolve(const Service &, int timeoutMs) override { resolveLimits.append(timeoutMs); }
    /// A control-room service of this name.
    static Service service(const QString &name) { return Service{name, QStringLiteral("_bravacontrol._tcp"), QStringLiteral("local"), 1, 0}; }
    /// Found, then resolved to these addresses.
    void announce(const QString &name, int port, const QList<QHostAddress> &addresses = {QHostAddress::LocalHost})
    {
        onFound(service(name));
        onResolved(service(name), addresses, port);
    }
};
