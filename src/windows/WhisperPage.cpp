#include "WhisperPage.h"

#include <QStringList>

namespace WhisperPage {

namespace {

const char *const kHead = R"(<!DOCTYPE html><html><head><meta charset="utf-8"><style>
html,body{margin:0;padding:0;background:transparent;overflow:hidden}
#w{display:inline-block;padding:46px}
#b{width:720px;background:#0a0d12;border:2px solid #01a6ff;border-radius:18px;overflow:hidden;box-sizing:border-box;
box-shadow:0 0 30px rgba(1,166,255,.35),0 16px 44px rgba(0,0,0,.5);
font-family:system-ui,"Cantarell","Noto Sans","DejaVu Sans","Liberation Sans",sans-serif}
.bar{background:linear-gradient(180deg,#27b4ff,#01a6ff);padding:11px 24px;display:flex;flex-direction:row;align-items:center;gap:11px}
.em{font-size:17px;font-family:"Noto Color Emoji",sans-serif}
.lbl{color:#04121f;font-family:"Roboto Condensed","Noto Sans Condensed","DejaVu Sans Condensed","Liberation Sans Narrow",sans-serif;
font-weight:800;font-size:20px;letter-spacing:.6px;text-transform:uppercase}
.dot{width:11px;height:11px;border-radius:50%;background:#ff2d2d;margin-left:auto;box-shadow:0 0 8px 2px rgba(255,45,45,.8);
animation:bravablink 1.1s steps(1) infinite}
@keyframes bravablink{50%{opacity:0}}
.body{padding:22px 26px 26px;
background:radial-gradient(ellipse 70% 90% at 50% 0,rgba(39,180,255,.28),rgba(39,180,255,0) 70%),
linear-gradient(180deg,rgba(8,22,47,.82),rgba(8,12,21,.86),rgba(5,7,10,.92)),url(%PICTURE%) center/cover no-repeat}
.t{color:#fff;font-weight:700;font-size:29px;line-height:1.32;text-shadow:0 2px 6px rgba(0,0,0,.7);
white-space:pre-wrap;overflow-wrap:anywhere;word-break:break-word}
</style></head><body><div id="w"><div id="b"><div class="bar"><span class="em">)"
                         "\xF0\x9F\x92\xAC"
                         R"(</span><span class="lbl">LIVE MESSAGE FROM )";

// Blanks: tabs and the space separators (not line breaks).
bool isBlank(QChar c)
{
    return c == QLatin1Char('\t') || c.category() == QChar::Separator_Space;
}

} // namespace

QString measureScript()
{
    return QStringLiteral("(function(){var b=document.getElementById('w').getBoundingClientRect();"
                          "return Math.ceil(b.width)+'x'+Math.ceil(b.height);})()");
}

QString label(int seat, const QString &from)
{
    qsizetype first = 0, end = from.size();
    while (first < end && isBlank(from.at(first)))
        ++first;
    while (end > first && isBlank(from.at(end - 1)))
        --end;
    QString name = from.mid(first, end - first);
    if (name.isEmpty())
        name = seat < 1 ? QStringLiteral("a mentor") : QStringLiteral("Mentor %1").arg(seat);
    return name.toUpper();
}

QString escape(const QString &text)
{
    QString out = text;
    out.replace(QLatin1Char('&'), QLatin1String("&amp;"));
    out.replace(QLatin1Char('<'), QLatin1String("&lt;"));
    out.replace(QLatin1Char('>'), QLatin1String("&gt;"));
    return out;
}

QString html(const QString &text, int seat, const QString &from, const QString &picture)
{
    QString page = QString::fromUtf8(kHead);
    page.replace(QLatin1String("%PICTURE%"), picture); // before any outside text joins the page
    page += escape(label(seat, from));
    page += QLatin1String(R"(</span><span class="dot"></span></div><div class="body"><div class="t">)");
    page += escape(text);
    page += QLatin1String("</div></div></div></div></body></html>");
    return page;
}

QSize parseSize(const QVariant &answer)
{
    const QStringList parts = answer.toString().split(QLatin1Char('x'));
    if (parts.size() != 2)
        return kFallbackSize;
    bool okW = false, okH = false;
    const int w = parts.at(0).toInt(&okW), h = parts.at(1).toInt(&okH);
    if (!okW || !okH || w < 1 || h < 1)
        return kFallbackSize;
    return {w, h};
}

QRect place(const QRect &available, QSize size)
{
    const int w = qMin(size.width(), available.width());
    const int h = qMin(size.height(), available.height() - kTopGap);
    return {available.x() + (available.width() - w) / 2, available.y() + kTopGap, w, h};
}

} // namespace WhisperPage
