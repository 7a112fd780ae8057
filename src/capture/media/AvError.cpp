#include "AvError.h"

extern "C" {
#include <libavutil/error.h>
}

QString avErrorText(int code)
{
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, text, sizeof text);
    return QString::fromUtf8(text);
}
