#pragma once

#include <QQuickView>

#include <functional>

class WizardModel;

// The window that shows the setup wizard's screens (QML compiled into the program) over one
// model. Closing it by the window manager is reported through onClosed. Main thread only.
class WizardWindow : public QQuickView
{
    Q_OBJECT
public:
    /// A window titled "Vantorra Recorder Setup" showing `model`, which outlives it.
    explicit WizardWindow(WizardModel &model, QWindow *parent = nullptr);

    /// Whether the screens loaded (errors are logged once).
    bool loaded() const { return rootObject() != nullptr; }
    /// Brings the window to the front.
    void bringToFront();

    /// Called when the window is closed by its user or the window manager.
    std::function<void()> onClosed;

protected:
    bool event(QEvent *e) override;
};
