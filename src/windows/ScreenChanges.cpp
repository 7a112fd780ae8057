#include "ScreenChanges.h"

#include <QGuiApplication>
#include <QScreen>

namespace ScreenChanges {

void follow(QObject *context, const std::function<void()> &changed)
{
    const auto watch = [context, changed](QScreen *s) { QObject::connect(s, &QScreen::availableGeometryChanged, context, changed); };
    QObject::connect(qApp, &QGuiApplication::screenAdded, context, [watch, changed](QScreen *s) {
        watch(s);
        changed();
    });
    QObject::connect(qApp, &QGuiApplication::screenRemoved, context, changed);
    QObject::connect(qApp, &QGuiApplication::primaryScreenChanged, context, changed);
    for (QScreen *s : QGuiApplication::screens())
        watch(s);
}

} // namespace ScreenChanges
