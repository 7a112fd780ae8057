#include "DeviceChoice.h"

namespace DeviceChoice {

bool isReal(const QString &name)
{
    static const char *const words[] = {"blackhole", "ndi",      "obs",          "virtual", "aggregate",
                                        "soundflower", "loopback", "multi-output", "iphone",  "ipad",
                                        "continuity",  "zoom",     "teams",        "wave link", "voicemeeter"};
    const QString lower = name.toLower();
    for (const char *word : words)
        if (lower.contains(QLatin1String(word)))
            return false;
    return true;
}

bool isBuiltIn(const QString &formFactor, const QString &bus)
{
    if (formFactor == QLatin1String("internal"))
        return true;
    return bus == QLatin1String("pci") || bus == QLatin1String("platform") || bus == QLatin1String("isa")
        || bus == QLatin1String("sdw");
}

std::optional<Device> pickMic(const QList<Device> &mics, const QString &savedUid)
{
    if (!savedUid.isEmpty()) {
        for (const Device &d : mics)
            if (d.uid == savedUid)
                return d;
    } else {
        for (const Device &d : mics)
            if (!d.builtIn)
                return d;
    }
    for (const Device &d : mics)
        if (d.isDefault)
            return d;
    if (!mics.isEmpty())
        return mics.first();
    return std::nullopt;
}

std::optional<Device> pickRoomMic(const QList<Device> &mics, const QString &micUid)
{
    for (const Device &d : mics)
        if (d.builtIn && d.uid != micUid)
            return d;
    return std::nullopt;
}

} // namespace DeviceChoice
