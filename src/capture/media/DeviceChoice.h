#pragma once

#include "Device.h"

#include <QList>
#include <QString>

#include <optional>

// The rules for choosing audio devices, free of any sound system so they can be tested alone.
namespace DeviceChoice {

/// A device is real unless its lower-cased name contains a word of virtual or relay devices.
bool isReal(const QString &name);
/// Built-in means part of the computer: form factor "internal", or a bus on the main board
/// ("pci", "platform", "isa", "sdw"). USB, Bluetooth and unknown buses are attached devices.
bool isBuiltIn(const QString &formFactor, const QString &bus);
/// The microphone to use: the saved one if present; with no saved choice the first attached
/// device; otherwise the system default if listed; otherwise the first device.
std::optional<Device> pickMic(const QList<Device> &mics, const QString &savedUid);
/// The room microphone: the first built-in device other than the one in use.
std::optional<Device> pickRoomMic(const QList<Device> &mics, const QString &micUid);

} // namespace DeviceChoice
