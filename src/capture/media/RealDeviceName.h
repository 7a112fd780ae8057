#pragma once

#include <QString>

// Tells real capture devices from virtual ones, phones and app-provided devices by name.
namespace RealDeviceName {
/// True when the lower-cased name contains none of the words of virtual or app devices.
bool isReal(const QString &name);
} // namespace RealDeviceName
