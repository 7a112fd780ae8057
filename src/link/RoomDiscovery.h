#pragma once

#include "Room.h"
#include "ServiceBrowser.h"

#include <QList>
#include <QObject>

#include <functional>
#include <memory>

class RoomProbe;
class QNetworkAccessManager;
class QTimer;

// Finds the control rooms announced on the local network, keeps those that answer over HTTP and
// offers them as a live list in order of arrival. Rooms enter after resolving to an IPv4 address
// and answering the probe; they leave when a liveness probe fails or their name is withdrawn.
// Main thread only; the owner (the setup wizard) creates one and reads rooms() on onChange.
class RoomDiscovery : public QObject
{
    Q_OBJECT
public:
    /// Probes over `net`; uses the given browser, or the system's DNS-SD daemon when none is given.
    explicit RoomDiscovery(QNetworkAccessManager &net, std::unique_ptr<ServiceBrowser> browser = nullptr,
                           QObject *parent = nullptr);
    ~RoomDiscovery() override;

    /// Begins or restarts discovery; the list is kept.
    void start();
    /// Ends discovery; the list is frozen as it is.
    void stop();

    /// Rooms that resolved and answered, in order of arrival.
    const QList<Room> &rooms() const { return m_rooms; }
    /// Whether a browse is active.
    bool searching() const { return m_searching; }
    /// Services found and still being resolved.
    int resolving() const { return int(m_pending.size()); }

    /// Called whenever rooms() or searching() changed.
    std::function<void()> onChange;

    /// Period of the liveness pass in milliseconds; read by start().
    int livenessIntervalMs = 4000;
    /// Time limit of one resolve in milliseconds.
    int resolveTimeoutMs = 5000;
    /// Time limit of one HTTP probe in milliseconds.
    int probeTimeoutMs = 2000;

    /// The advertised service type and domain.
    static constexpr const char *kType = "_bravacontrol._tcp";
    static constexpr const char *kDomain = "local";

private:
    void found(const ServiceBrowser::Service &service);
    void resolved(const ServiceBrowser::Service &service, const QList<QHostAddress> &addresses, int port);
    void notResolved(const ServiceBrowser::Service &service);
    void removed(const ServiceBrowser::Service &service);
    void browserStopped();
    void recheck();
    void add(const Room &room);
    void removeWhere(const std::function<bool(const Room &)> &match);
    void setSearching(bool on);
    bool probe(const QString &host, int port, std::function<void(bool)> done);

    std::unique_ptr<ServiceBrowser> m_browser;
    RoomProbe *m_probe;
    QTimer *m_liveTimer = nullptr;
    QList<Room> m_rooms;
    QList<ServiceBrowser::Service> m_pending;
    bool m_searching = false;
    // Probe answers of an earlier run are ignored.
    quint64 m_generation = 0;
};
