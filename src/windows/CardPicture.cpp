#include "CardPicture.h"

#include <QBuffer>
#include <QLinearGradient>
#include <QPainter>
#include <QPainterPath>
#include <QRadialGradient>

#include <cmath>

namespace CardPicture {

QImage draw(int width, int height)
{
    QImage image(width, height, QImage::Format_RGB32);
    QPainter p(&image);
    p.setRenderHint(QPainter::Antialiasing);

    QLinearGradient base(0, 0, 0, height);
    base.setColorAt(0, QColor(0x0b, 0x1f, 0x44));
    base.setColorAt(1, QColor(0x03, 0x06, 0x0d));
    p.fillRect(image.rect(), base);

    // Two soft pools of light.
    for (const auto &[cx, cy, r, alpha] : {std::tuple{0.25, 0.0, 0.7, 90}, std::tuple{0.85, 0.35, 0.5, 60}}) {
        QRadialGradient glow(QPointF(width * cx, height * cy), width * r);
        glow.setColorAt(0, QColor(0x27, 0xb4, 0xff, alpha));
        glow.setColorAt(1, QColor(0x27, 0xb4, 0xff, 0));
        p.fillRect(image.rect(), glow);
    }

    // Faint sound waves across the lower half.
    for (int line = 0; line < 6; ++line) {
        QPainterPath wave;
        const double y0 = height * (0.55 + 0.07 * line), amplitude = 6.0 + 3.0 * line;
        for (int x = 0; x <= width; x += 4) {
            const double y = y0 + amplitude * std::sin(x / (40.0 + 9.0 * line) + line);
            if (x == 0)
                wave.moveTo(x, y);
            else
                wave.lineTo(x, y);
        }
        p.setPen(QPen(QColor(0x01, 0xa6, 0xff, 26 + 6 * line), 1.5));
        p.drawPath(wave);
    }
    return image;
}

QString dataUrl()
{
    QByteArray jpeg;
    QBuffer buffer(&jpeg);
    buffer.open(QIODevice::WriteOnly);
    draw().save(&buffer, "JPEG", 80);
    return QStringLiteral("data:image/jpeg;base64,") + QString::fromLatin1(jpeg.toBase64());
}

} // namespace CardPicture
