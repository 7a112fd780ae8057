#pragma once

#include <QString>
#include <QUrl>

class QNetworkAccessManager;

// The one network session for the event web service (check-in, roster), on the main thread.
namespace WebSession {

/// The shared session, created on first use.
QNetworkAccessManager &shared();
/// The event web service's base URL + path; an empty URL when this build has no web service.
QUrl endpoint(const QString &path);

} // namespace WebSession
