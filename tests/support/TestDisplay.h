#pragma once

#include <QApplication>
#include <QtTest>

#include <cstdlib>

// Tests that draw real windows (kept on top, skipping the task bar, in the tray) run on the X server
// with a window manager that scripts/test starts and names in BRAVA_TEST_DISPLAY. Without it they
// run on the offscreen platform and skip what needs X (BRAVA_REQUIRE_X).
namespace TestDisplay {

/// Points DISPLAY and the Qt platform at the test X server; false (offscreen) when there is none.
inline bool useTestX()
{
    const char *display = std::getenv("BRAVA_TEST_DISPLAY");
    if (!display || !*display)
        return false;
    qputenv("DISPLAY", display);
    qputenv("QT_QPA_PLATFORM", "xcb");
    return true;
}

/// Whether this run is on the test X server.
inline bool onX = false;

/// The folder <build>/<name> where a test keeps its pictures (listed in the README), made if missing.
inline QString pictures(const char *name)
{
    const QString dir = qEnvironmentVariable("BRAVA_TEST_BINARY_DIR", QDir::currentPath()) + QLatin1Char('/') + QLatin1String(name);
    QDir().mkpath(dir);
    return dir;
}

} // namespace TestDisplay

/// Skips the current test when there is no test X server.
#define BRAVA_REQUIRE_X()                                                                          \
    do {                                                                                           \
        if (!TestDisplay::onX)                                                                   \
            QSKIP("needs the test X server (scripts/test starts Xvfb with openbox)");              \
    } while (false)

/// main() of a window test: the test X server when there is one, else offscreen.
#define BRAVA_X_TEST_MAIN(TestClass)                                                               \
    int main(int argc, char **argv)                                                                \
    {                                                                                              \
        TestDisplay::onX = TestDisplay::useTestX();                                              \
        QApplication app(argc, argv);                                                              \
        QTEST_SET_MAIN_SOURCE_PATH                                                                 \
        TestClass tc;                                                                              \
        return QTest::qExec(&tc, argc, argv);                                                      \
    }
