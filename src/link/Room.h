#pragma once

#include <QString>

// One control room found on the local network.
struct Room
{
    /// The advertised service instance name.
    QString name;
    /// Numeric IPv4 address in dotted form.
    QString host;
    /// TCP port of the service.
    int port = 0;

    /// host:port; the room's identity in lists.
    QString id() const { return host + QLatin1Char(':') + QString::number(port); }
    /// host:port, the form the control-room address setting takes.
    QString address() const { return id(); }

    bool operator==(const Room &) const = default;
};
