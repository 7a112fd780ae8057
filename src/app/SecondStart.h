#pragma once

#include <QLocalServer>
#include <QObject>
#include <QString>

// A second start of the program while the agent runs (a click on its menu entry by someone who
// cannot find the tray icon) brings the running agent forward instead of doing nothing: the
// running copy listens on a local socket named after its data folder, in the user's runtime
// folder; the second copy knocks there and quits.
class SecondStart : public QObject
{
    Q_OBJECT
public:
    /// The door of the agent whose data folder is `dataDir`.
    explicit SecondStart(const QString &dataDir, QObject *parent = nullptr);

    /// The running copy: opens the door; false (and logged) when it cannot.
    bool listen();
    /// The second copy: knocks at the running copy's door, waiting at most `waitMs`; true when heard.
    bool knock(int waitMs = 2000);

Q_SIGNALS:
    /// The program was started again.
    void knocked();

private:
    void answer();

    QString m_name;
    QLocalServer m_server;
};
