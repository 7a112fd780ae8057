#pragma once

#include <QString>

/// The text of an FFmpeg error code.
QString avErrorText(int code);
