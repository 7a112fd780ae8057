#include "AppDelegate.h"

#include <QApplication>

int main(int argc, char *argv[])
{
    QApplication app(argc, argv);
    app.setApplicationName(QStringLiteral("Brava Recorder"));
    // A tray agent: closing a window never ends it.
    app.setQuitOnLastWindowClosed(false);
    AppDelegate delegate;
    delegate.applicationDidFinishLaunching();
    return app.exec();
}
