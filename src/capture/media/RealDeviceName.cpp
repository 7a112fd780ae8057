#include "RealDeviceName.h"

#include <array>

namespace RealDeviceName {

bool isReal(const QString &name)
{
    static const std::array<QLatin1String, 15> words = {
        QLatin1String("blackhole"), QLatin1String("ndi"),         QLatin1String("obs"),
        QLatin1String("virtual"),   QLatin1String("aggregate"),   QLatin1String("soundflower"),
        QLatin1String("loopback"),  QLatin1String("multi-output"), QLatin1String("iphone"),
        QLatin1String("ipad"),      QLatin1String("continuity"),  QLatin1String("zoom"),
        QLatin1String("teams"),     QLatin1String("wave link"),   QLatin1String("voicemeeter"),
    };
    const QString lower = name.toLower();
    for (const QLatin1String &word : words) {
        if (lower.contains(word))
            return false;
    }
    return true;
}

} // namespace RealDeviceName
