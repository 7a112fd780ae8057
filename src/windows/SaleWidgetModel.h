#pragma once

#include <QColor>
#include <QList>
#include <QRect>
#include <QString>

#include <optional>

// What the sale widget draws and where it goes: sizes, colours and texts of its buttons, its saved
// frame's text form and the rule that snaps it to the nearest screen edge after a move. Pure: no
// widgets here. Coordinates are Qt's (origin top-left, y grows downwards), in device-independent
// pixels.
namespace SaleWidgetModel {

/// Width of the panel.
constexpr int kWidth = 196;
/// Height with the "Submit a Sale" button.
constexpr int kHeightWithSale = 182;
/// Height without it.
constexpr int kHeightWithoutSale = 134;
/// Distance from the screen edges of a panel placed for the first time.
constexpr int kFirstInset = 24;
/// Distance from the edge the panel snaps to and keeps from every edge.
constexpr int kMargin = 12;
/// Corner radius of the panel and of its buttons.
constexpr int kPanelRadius = 15;
constexpr int kButtonRadius = 10;
/// The snap runs this long after the last move.
constexpr int kSnapDelayMs = 180;
/// Moves during this long after a snap are the snap's own and not saved.
constexpr int kSnappingMs = 350;
/// How long "Help sent ✓" stays on the call button.
constexpr int kHelpFlashMs = 1400;
/// How long "Help not sent ✗" stays on it (a call for help that did not reach the control room).
constexpr int kHelpFailedMs = 5000;

/// Panel background.
QColor navy();
/// Idle call button and sale button.
QColor blue();
/// Call button during a call.
QColor green();
/// Help button.
QColor red();

/// The panel's height with or without the sale button.
int height(bool withSale);

/// One button of the panel.
struct Button {
    enum Kind { Call, Sale, Help };
    Kind kind;
    QString title;
    QColor colour;
    QRect frame; ///< inside the panel
};
/// The buttons top to bottom (call, sale when shown, help), in their idle look.
QList<Button> buttons(bool withSale);
/// The drag handle's text and frame inside the panel.
QString handleText();
QRect handleFrame();

/// The call button's look.
struct CallLook {
    QString title;
    QColor colour;
    int pixelSize;
};
/// The call button for this call state, or while confirming a help request.
CallLook callLook(bool callActive, bool helpFlash);
/// The call button while saying that a help request did not reach the control room.
CallLook helpNotSentLook();

/// "{{x, y}, {w, h}}".
QString frameText(const QRect &frame);
/// The frame written by frameText(); nothing for any other text or a size outside 1…10000.
std::optional<QRect> parseFrame(const QString &text);

/// One screen: its whole area and the part windows may use (without panels and docks).
struct Screen {
    QRect geometry;
    QRect available;
};
/// Where a panel is placed the first time: the bottom-right corner of the main screen's usable area.
QRect firstFrame(const QRect &available, bool withSale);
/// The frame after a move to `frame`: on the screen holding its centre (else the main one, the
/// first in the list), moved along one axis to the nearest edge of the usable area (ties go left,
/// right, bottom, top) and kept kMargin inside it. Nothing without screens.
std::optional<QRect> snap(const QRect &frame, const QList<Screen> &screens);

} // namespace SaleWidgetModel
