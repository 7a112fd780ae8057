#pragma once

#include "ServiceBrowser.h"

#include <QList>

#include <memory>

class AvahiQtPoll;
class QTimer;
struct AvahiClient;
struct AvahiServiceBrowser;
struct AvahiServiceResolver;

// DNS-SD browsing through the Avahi daemon (over the system D-Bus), driven by the Qt event loop
// of the thread that owns it. When no daemon can be reached, browse() answers false; a daemon
// that goes away ends the browse with onStopped, and the next browse() tries to reach it again.
class AvahiBrowser : public ServiceBrowser
{
public:
    AvahiBrowser();
    ~AvahiBrowser() override;

    /// Browses for type in domain over IPv4 and IPv6 announcements; false without a daemon.
    bool browse(const QString &type, const QString &domain) override;
    /// Ends the browse and every resolve in progress.
    void stop() override;
    /// Resolves one found service to its address and port.
    void resolve(const Service &service, int timeoutMs) override;

    /// Why the daemon could not be used last time; "" when it could.
    QString lastError() const { return m_lastError; }

private:
    struct Resolve;
    friend struct AvahiEvents;
    bool ensureClient();
    void dropClient();
    void finishResolve(Resolve *r);

    std::unique_ptr<AvahiQtPoll> m_poll;
    AvahiClient *m_client = nullptr;
    AvahiServiceBrowser *m_browser = nullptr;
    QList<Resolve *> m_resolves;
    QString m_lastError;
};
