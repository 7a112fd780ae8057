#pragma once

#include <QHostAddress>
#include <QList>
#include <QString>

#include <functional>

// The DNS-SD events control-room discovery needs: services of one type appearing and going
// away, and each found service resolved to its addresses and port. Implemented over the system's
// DNS-SD daemon, and by scripted sources in tests. Callbacks arrive on the owner's thread.
class ServiceBrowser
{
public:
    /// One announced service instance as the browser reported it.
    struct Service
    {
        QString name;
        QString type;
        QString domain;
        /// Where the announcement was seen (interface and protocol of the daemon), -1 when unknown.
        int interface = -1;
        int protocol = -1;

        bool operator==(const Service &) const = default;
    };

    virtual ~ServiceBrowser() = default;

    /// Starts browsing, or starts over so every current service is reported again; false when
    /// no DNS-SD service can be reached.
    virtual bool browse(const QString &type, const QString &domain) = 0;
    /// Ends browsing and every resolve in progress, without reporting onStopped.
    virtual void stop() = 0;
    /// Resolves a found service; onResolved or onResolveFailed follows within timeoutMs.
    virtual void resolve(const Service &service, int timeoutMs) = 0;

    /// A service appeared.
    std::function<void(const Service &)> onFound;
    /// A service was withdrawn.
    std::function<void(const Service &)> onRemoved;
    /// The browse ended on its own (the daemon went away or failed).
    std::function<void()> onStopped;
    /// A service resolved to these addresses, in the order given, and this port.
    std::function<void(const Service &, const QList<QHostAddress> &, int port)> onResolved;
    /// A service could not be resolved in time.
    std::function<void(const Service &)> onResolveFailed;
};
