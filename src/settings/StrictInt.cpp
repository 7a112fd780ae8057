#include "StrictInt.h"

std::optional<int> parseStrictInt(QStringView text, int min, int max)
{
    Q_ASSERT(min <= max);
    const qsizetype start = (text.startsWith(u'+') || text.startsWith(u'-')) ? 1 : 0;
    if (start == text.size() || text.size() - start > 18)
        return std::nullopt;
    qint64 value = 0;
    for (qsizetype i = start; i < text.size(); ++i) {
        const char16_t c = text.at(i).unicode();
        if (c < u'0' || c > u'9')
            return std::nullopt;
        value = value * 10 + (c - u'0');
    }
    if (text.startsWith(u'-'))
        value = -value;
    if (value < min || value > max)
        return std::nullopt;
    return int(value);
}
