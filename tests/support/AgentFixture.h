#pragma once

#include "AppDelegate.h"
#include "Clock.h"
#include "SyntheticCameraBackend.h"
#include "TestHome.h"
#include "TestRoom.h"

#include <QJsonObject>

#include <memory>

class AudioBackend;

// One agent as main() builds it, on the test sound server (or a given backend) and one synthetic
// camera, set up as agent #7 of a TestRoom, launched and connected; or fresh, as a new agent's
// first launch with nothing set up.
struct AgentFixture
{
    /// Builds and launches the agent; `audio` replaces the test sound server when given; with a
    /// web service base URL the build is locked to the room and checks in; `fresh` leaves the
    /// settings empty and does not wait for the link.
    explicit AgentFixture(TestHome &home, AudioBackend *audio = nullptr, const QString &webBase = QString(),
                          Clock &clock = Clock::monotonic(), bool fresh = false);
    /// Sends a command over the link and waits until the agent has handled it and carried it out
    /// (false on time-out).
    bool command(const QJsonObject &c);
    /// Waits until no reconciler pass runs (false on time-out).
    bool idle();

    TestHome &home;
    TestRoom room;
    std::unique_ptr<AudioBackend> ownAudio;
    SyntheticCameraBackend cameras{{1, {320, 180}, 15}};
    std::unique_ptr<AppDelegate> app;
    int markers = 0;
};
