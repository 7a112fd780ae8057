#include "Trash.h"

#include <QFile>

#include <gio/gio.h>

namespace Trash {

bool move(const QString &path, QString *error)
{
    GFile *file = g_file_new_for_path(QFile::encodeName(path).constData());
    GError *failure = nullptr;
    const bool moved = g_file_trash(file, nullptr, &failure);
    if (!moved && error)
        *error = failure ? QString::fromUtf8(failure->message) : QStringLiteral("unknown error");
    if (failure)
        g_error_free(failure);
    g_object_unref(file);
    return moved;
}

} // namespace Trash
