#pragma once

#include <QString>
#include <QStringList>

#include <functional>

/// A message for the person at the computer, with buttons; the first button is the one that
/// goes ahead, the second the way out.
struct Alert
{
    QString message;
    QString informative;
    QStringList buttons{QStringLiteral("OK")};
    bool critical = false;
    int defaultButton = 0; ///< the button Enter presses: the way out where going ahead loses recordings
};

/// Shows an alert and later calls back with the index of the button chosen (-1 when closed).
using AskFunction = std::function<void(const Alert &, std::function<void(int)>)>;
