#pragma once

#include "Device.h"
#include "OrderedJson.h"

#include <QList>
#include <optional>

// The status message the agent sends twice a second: every state the control room needs, with
// keys in a fixed order.
namespace Heartbeat {

struct Values {
    bool updateBusy = false;
    bool recording = false;
    bool live = false;
    double mic = 0;
    double sys = 0;
    int rate = 48000;
    bool cam = false;
    bool camActive = false;
    std::optional<QString> camError;
    QString micName;
    QList<Device> mics;
    QList<Device> cams;
    QString micUID;
    QString camUID;
    std::optional<QString> error;
};

/// The "status" message for these values.
OrderedJson message(const Values &v);

} // namespace Heartbeat
