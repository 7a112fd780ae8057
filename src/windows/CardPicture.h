#pragma once

#include <QImage>
#include <QString>

// The whisper card's background: a dark, blue-toned picture drawn here (soft light from the top,
// faint sound waves), embedded in the page as a JPEG data URL.
namespace CardPicture {

/// The picture at this size.
QImage draw(int width = 720, int height = 300);
/// The picture as "data:image/jpeg;base64,…".
QString dataUrl();

} // namespace CardPicture
