#pragma once

#include <QGuiApplication>
#include <QScreen>
#include <QWidget>

/// Where a window opens: centred on the main screen's usable area the first time, then wherever
/// the person left it.
class FirstPlacement
{
public:
    /// Centres `window`, `size` big, on the main screen unless it was placed before.
    void place(QWidget &window, QSize size)
    {
        if (m_placed)
            return;
        m_placed = true;
        if (const QScreen *s = QGuiApplication::primaryScreen())
            window.move(s->availableGeometry().center() - QPoint(size.width() / 2, size.height() / 2));
    }

private:
    bool m_placed = false;
};
