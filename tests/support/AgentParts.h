#pragma once

#include "CameraBackend.h"
#include "Permissions.h"
#include "PulseBackend.h"

#include <memory>

// The platform parts an agent is built on: the sound server, the cameras and the permissions.
struct AgentParts {
    PulseBackend audio;
    std::unique_ptr<CameraBackend> cameras = CameraBackend::fromEnvironment();
    Permissions permissions{audio};
};
