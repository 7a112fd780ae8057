#pragma once

#include "Alert.h"

class QMessageBox;

// Shows an Alert as an application-modal message box without waiting for it: the answer arrives
// through the callback, so the agent's heartbeat keeps running while the box is open.
namespace AlertBox {

/// Shows the alert in front and returns the box (deleted when closed).
QMessageBox *show(const Alert &alert, std::function<void(int)> answer);
/// The narrowest box in pixels: room for the title and a few long lines of text.
constexpr int kMinWidth = 440;

} // namespace AlertBox
