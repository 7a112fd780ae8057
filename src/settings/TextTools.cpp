#include "TextTools.h"

namespace TextTools {

QString trimSpacesAndTabs(const QString &text)
{
    qsizetype b = 0, e = text.size();
    const auto blank = [](QChar c) { return c == QLatin1Char(' ') || c == QLatin1Char('\t'); };
    while (b < e && blank(text.at(b)))
        ++b;
    while (e > b && blank(text.at(e - 1)))
        --e;
    return text.mid(b, e - b);
}

QString printable(const QString &text, int max)
{
    QString out;
    for (qsizetype i = 0; i < text.size() && out.size() < max; ++i) {
        const QChar c = text.at(i);
        if (c.category() == QChar::Other_Control || c == QChar::LineSeparator || c == QChar::ParagraphSeparator)
            out += QStringLiteral("\\x%1").arg(c.unicode(), 2, 16, QLatin1Char('0'));
        else
            out += c;
    }
    if (out.size() >= max && text.size() > max)
        out += QStringLiteral("…");
    return out;
}

} // namespace TextTools
