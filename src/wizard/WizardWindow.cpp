#include "WizardWindow.h"

#include "BravaLog.h"
#include "WizardModel.h"

#include <QQmlEngine>
#include <QQmlError>
#include <QUrl>

#include <mutex>

WizardWindow::WizardWindow(WizardModel &model, QWindow *parent)
    : QQuickView(parent)
{
    // The screens name the steps as SetupStep.Camera and so on.
    static std::once_flag steps;
    std::call_once(steps, [] {
        qmlRegisterUncreatableMetaObject(SetupStep::staticMetaObject, "Brava.Setup", 1, 0, "SetupStep",
                                         QStringLiteral("SetupStep only names the steps"));
    });
    setTitle(QStringLiteral("Vantorra Recorder Setup"));
    setResizeMode(QQuickView::SizeRootObjectToView);
    setInitialProperties({{QStringLiteral("wizard"), QVariant::fromValue<QObject *>(&model)}});
    setSource(QUrl(QStringLiteral("qrc:/Brava/Wizard/qml/WizardView.qml")));
    const QList<QQmlError> problems = errors();
    for (const QQmlError &e : problems)
        bravaLog(QStringLiteral("setup screens: ") + e.toString());
    resize(720, 640);
}

void WizardWindow::bringToFront()
{
    show();
    raise();
    requestActivate();
}

bool WizardWindow::event(QEvent *e)
{
    if (e->type() == QEvent::Close && onClosed)
        onClosed();
    return QQuickView::event(e);
}
