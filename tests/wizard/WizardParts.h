#pragma once

#include "Connection.h"
#include "Permissions.h"
#include "Recorder.h"
#include "ScriptedBrowser.h"
#include "SyntheticAudioBackend.h"
#include "SyntheticCameraBackend.h"
#include "TestHome.h"
#include "WizardModel.h"

#include <QNetworkAccessManager>

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
    ScriptedBrowser *browser = new ScriptedBrowser;
    RoomDiscovery discovery{net, std::unique_ptr<ServiceBrowser>(browser)};
    Recorder rec{audio, cameras, Clock::monotonic()};

    WizardModel::Parts parts() { return {rec, permissions, conn, discovery, net, home.settings(), home.info()}; }
};
