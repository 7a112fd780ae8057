#pragma once

#include <QString>

// One capture device as the agent sees it: a microphone or a camera.
struct Device {
    QString uid;            // survives reboots and re-plugs in the same port
    QString name;           // display name
    bool builtIn = false;   // part of the computer rather than attached
    bool isDefault = false; // the system's default device of its kind
};
