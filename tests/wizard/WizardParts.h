#pragma once

#include "Connection.h"
#include "Permissions.h"
#include "Recorder.h"
#include "RoomDiscovery.h"
#include "SyntheticAudioBackend.h"
#include "SyntheticCameraBackend.h"
#include "TestHome.h"
#include "WizardModel.h"

#include <QNetworkAccessManager>

// A DNS-SD source that announces whatever the test says (rooms still have to answer over HTTP).
class QuietBrowser : public ServiceBrowser
{
public:
    bool browse(const QString &, const QString &) override { return true; }
    void stop() override {}
    void resolve(const Service &, int) override {}
    /// Found and resolved to loopback at this port.
    void announce(const QString &name, int port)
    {
        const Service s{name, QStringLiteral("_bravacontrol._tcp"), QStringLiteral("local"), 1, 0};
        onFound(s);
        onResolved(s, {QHostAddress::LocalHost}, port);
    }
};

// The parts a wizard model works with, on a synthetic sound system and camera.
struct WizardParts
{
    /// With this many cameras, and camera access as given.
    explicit WizardParts(TestHome &home, int cameraCount = 1, CameraAccess::Status camAccess = CameraAccess::Status::Authorized)
        : home(home), cameras({cameraCount, {160, 90}, 10}), permissions(audio, [camAccess] { return camAccess; })
    {
    }

    TestHome &home;
    SyntheticAudioBackend audio;
    SyntheticCameraBackend cameras;
    QNetworkAccessManager net;
    Connection conn{home.settings(), home.info()};
    Permissions permissions;
    QuietBrowser *browser = new QuietBrowser;
    RoomDiscovery discovery{net, std::unique_ptr<ServiceBrowser>(browser)};
    Recorder rec{audio, cameras, Clock::monotonic()};

    WizardModel::Parts parts() { return {rec, permissions, conn, discovery, net, home.settings(), home.info()}; }
};
