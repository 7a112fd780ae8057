#pragma once

#include "QueryString.h"

#include <QString>
#include <QUrl>

class BuildInfo;

// Addresses of the event web service (check-in, roster, verification).
namespace WebSession {

/// The build's event web service base URL + path with this query (fully encoded); an empty URL
/// when this build has no web service or the result is not a valid URL.
QUrl endpoint(const BuildInfo &build, const QString &path, const QueryString::Items &query = {});

} // namespace WebSession
