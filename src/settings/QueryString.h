#pragma once

#include <QList>
#include <QPair>
#include <QString>
#include <QUrl>

// Query strings for every request the agent makes. Keys and values are texts as they are (a
// session "a%2Fb" means those five characters): each is sent as UTF-8 with every byte outside the
// unreserved set percent-encoded ("%", "+", "&", "=", NUL and non-ASCII included), so the server
// decodes exactly the text that was meant.
namespace QueryString {

using Items = QList<QPair<QString, QString>>;

/// The items joined as key=value with "&", fully percent-encoded.
QString encode(const Items &items);
/// `address` (for example "http://host:port/path") with this query; an invalid URL when the
/// address is not a valid URL with a host.
QUrl url(const QString &address, const Items &items);
/// scheme://server/path?query where `server` must be exactly a host with an optional port (no
/// user, path, query or fragment slips in through it); an invalid URL otherwise.
QUrl at(const QString &scheme, const QString &server, const QString &path, const Items &items);

} // namespace QueryString
