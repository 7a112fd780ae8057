#pragma once

#include <QString>
#include <QUrl>

// Addresses of the event web service (check-in, roster, verification).
namespace WebSession {

/// The event web service's base URL + path; an empty URL when this build has no web service.
QUrl endpoint(const QString &path);

} // namespace WebSession
