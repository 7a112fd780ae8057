#pragma once

#include <QRect>
#include <QSize>
#include <QString>
#include <QVariant>

// The whisper card's page and placement, without any window: the sender label, the escaping, the
// page itself, the reading of the page's measured size and where the card goes on the screen.
namespace WhisperPage {

/// Size used when the page's measurement gives no answer.
inline constexpr QSize kFallbackSize{812, 300};
/// Gap between the top of the screen's available area and the card, in pixels.
inline constexpr int kTopGap = 8;

/// The script that measures the card: "<width>x<height>" of the #w element, rounded up.
QString measureScript();
/// The sender label, upper-cased: `from` without surrounding blanks when that leaves text,
/// otherwise "a mentor" for a seat below 1, otherwise "Mentor <seat>".
QString label(int seat, const QString &from);
/// The text with "&", "<" and ">" replaced by entities, in that order.
QString escape(const QString &text);
/// The whole page for a message; `picture` is the URL of the card's background image.
QString html(const QString &text, int seat, const QString &from, const QString &picture);
/// The measured size from the script's answer, or kFallbackSize when it does not give two numbers.
QSize parseSize(const QVariant &answer);
/// The card's frame: top centre of `available`, kTopGap below its top, no larger than it.
QRect place(const QRect &available, QSize size);

} // namespace WhisperPage
