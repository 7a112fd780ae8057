#pragma once

#include <QObject>

class QSocketNotifier;

// Ends the application's event loop on SIGTERM, SIGINT and SIGHUP as the menu's Quit does, so
// that after a logout, a service manager's stop or Ctrl-C the segments being written are closed
// whole and the log says so. The handler only writes the signal's number to a socket; the event
// loop reads it. Children started later get the default handlers back when they execute.
class QuitSignals : public QObject
{
    Q_OBJECT
public:
    /// Installs the handlers (one object at a time).
    explicit QuitSignals(QObject *parent = nullptr);
    /// Puts the default handlers back.
    ~QuitSignals() override;

private:
    void readSignal();

    int m_fds[2] = {-1, -1};
    QSocketNotifier *m_notifier = nullptr;
};
