#include "SaleWidgetModel.h"

#include <QRegularExpression>

#include <algorithm>

namespace SaleWidgetModel {

QColor navy() { return QColor::fromRgbF(0.004f, 0.129f, 0.404f, 0.97f); }
QColor blue() { return QColor::fromRgbF(0.004f, 0.651f, 1.0f, 1.0f); }
QColor green() { return QColor::fromRgbF(0.13f, 0.7f, 0.33f, 1.0f); }
QColor red() { return QColor::fromRgbF(0.62f, 0.19f, 0.19f, 1.0f); }

int height(bool withSale)
{
    return withSale ? kHeightWithSale : kHeightWithoutSale;
}

QList<Button> buttons(bool withSale)
{
    // 176 x 40 at x = 10, the first 20 below the top, one every 48 going down.
    const auto at = [](int row) { return QRect(10, 20 + 48 * row, 176, 40); };
    const CallLook idle = callLook(false, false);
    QList<Button> out{{Button::Call, idle.title, idle.colour, at(0)}};
    if (withSale)
        out.append({Button::Sale, QStringLiteral("Submit a Sale"), blue(), at(1)});
    out.append({Button::Help, QStringLiteral("🙋  Need Help"), red(), at(withSale ? 2 : 1)});
    return out;
}

QString handleText()
{
    return QStringLiteral("⠿  drag");
}

QRect handleFrame()
{
    return QRect(0, 4, kWidth, 14);
}

CallLook callLook(bool callActive, bool helpFlash)
{
    const QColor colour = callActive ? green() : blue();
    if (helpFlash)
        return {QStringLiteral("Help sent ✓"), colour, 14};
    return {callActive ? QStringLiteral("⏹  End the Call") : QStringLiteral("🎧  On a Call"), colour, 15};
}

CallLook helpNotSentLook()
{
    return {QStringLiteral("Help not sent ✗"), red(), 14};
}

QString frameText(const QRect &f)
{
    return QStringLiteral("{{%1, %2}, {%3, %4}}").arg(f.x()).arg(f.y()).arg(f.width()).arg(f.height());
}

std::optional<QRect> parseFrame(const QString &text)
{
    static const QRegularExpression form(
        QStringLiteral("^\\{\\s*\\{\\s*(-?\\d{1,6}),\\s*(-?\\d{1,6})\\s*\\},\\s*\\{\\s*(\\d{1,5}),\\s*(\\d{1,5})\\s*\\}\\s*\\}$"));
    const QRegularExpressionMatch m = form.match(text);
    if (!m.hasMatch())
        return std::nullopt;
    const QRect r(m.captured(1).toInt(), m.captured(2).toInt(), m.captured(3).toInt(), m.captured(4).toInt());
    if (r.width() < 1 || r.height() < 1 || r.width() > 10000 || r.height() > 10000)
        return std::nullopt;
    return r;
}

QRect firstFrame(const QRect &v, bool withSale)
{
    const int h = height(withSale);
    return QRect(v.x() + v.width() - kWidth - kFirstInset, v.y() + v.height() - h - kFirstInset, kWidth, h);
}

std::optional<QRect> snap(const QRect &frame, const QList<Screen> &screens)
{
    if (screens.isEmpty())
        return std::nullopt;
    const QPoint centre = frame.center();
    const auto holder = std::find_if(screens.cbegin(), screens.cend(),
                                     [&](const Screen &s) { return s.geometry.contains(centre); });
    const QRect v = (holder != screens.cend() ? *holder : screens.first()).available;

    // Edges as numbers (right and bottom one past the last pixel).
    const int vLeft = v.x(), vRight = v.x() + v.width(), vTop = v.y(), vBottom = v.y() + v.height();
    const int w = frame.width(), h = frame.height();
    const int gaps[] = {frame.x() - vLeft, vRight - (frame.x() + w), vBottom - (frame.y() + h), frame.y() - vTop};
    const int nearest = int(std::min_element(std::begin(gaps), std::end(gaps)) - std::begin(gaps));

    int x = frame.x(), y = frame.y();
    switch (nearest) {
    case 0: x = vLeft + kMargin; break;
    case 1: x = vRight - w - kMargin; break;
    case 2: y = vBottom - h - kMargin; break;
    default: y = vTop + kMargin; break;
    }
    // The lower bound wins when the panel does not fit.
    x = std::max(std::min(x, vRight - w - kMargin), vLeft + kMargin);
    y = std::max(std::min(y, vBottom - h - kMargin), vTop + kMargin);
    return QRect(x, y, w, h);
}

} // namespace SaleWidgetModel
