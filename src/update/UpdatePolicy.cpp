#include "UpdatePolicy.h"

#include <QRegularExpression>

namespace UpdatePolicy {

QString archiveName(const QString &version)
{
    return QStringLiteral("Brava Recorder-") + version + QStringLiteral("-linux.zip");
}

namespace {

bool isDigit(QChar c)
{
    return c >= QLatin1Char('0') && c <= QLatin1Char('9');
}

// Compares the digit runs a[ia..ja) and b[ib..jb) as numbers of any length.
int compareRuns(const QString &a, qsizetype ia, qsizetype ja, const QString &b, qsizetype ib, qsizetype jb)
{
    while (ia < ja - 1 && a[ia] == QLatin1Char('0'))
        ++ia;
    while (ib < jb - 1 && b[ib] == QLatin1Char('0'))
        ++ib;
    if (ja - ia != jb - ib)
        return ja - ia < jb - ib ? -1 : 1;
    for (; ia < ja; ++ia, ++ib) {
        if (a[ia] != b[ib])
            return a[ia] < b[ib] ? -1 : 1;
    }
    return 0;
}

} // namespace

bool newer(const QString &a, const QString &b)
{
    qsizetype i = 0, j = 0;
    while (i < a.size() && j < b.size()) {
        if (isDigit(a[i]) && isDigit(b[j])) {
            qsizetype ei = i, ej = j;
            while (ei < a.size() && isDigit(a[ei]))
                ++ei;
            while (ej < b.size() && isDigit(b[ej]))
                ++ej;
            if (const int c = compareRuns(a, i, ei, b, j, ej))
                return c > 0;
            i = ei;
            j = ej;
            continue;
        }
        if (a[i] != b[j])
            return a[i] > b[j];
        ++i;
        ++j;
    }
    return i < a.size() && j >= b.size();
}

bool allowed(const QUrl &url, const QString &host)
{
    const QString path = url.path(QUrl::FullyEncoded);
    // A "." or ".." segment (also written %2E) would leave the uploads folder on the server.
    for (const QString &segment : url.path(QUrl::FullyDecoded).split(QLatin1Char('/'))) {
        if (segment == QLatin1String(".") || segment == QLatin1String(".."))
            return false;
    }
    return url.isValid() && url.scheme() == QLatin1String("https") && !host.isEmpty() && url.host() == host
        && url.port() == -1 && url.userInfo().isEmpty() && path.startsWith(QLatin1String("/wp-content/uploads/"))
        && path.endsWith(QLatin1String(".zip"));
}

bool digestWellFormed(const QString &sha256)
{
    static const QRegularExpression pattern(QStringLiteral("^[a-f0-9]{64}$"));
    return pattern.match(sha256).hasMatch();
}

bool versionWellFormed(const QString &version)
{
    static const QRegularExpression pattern(QStringLiteral("^[0-9A-Za-z._+-]{1,32}$"));
    return pattern.match(version).hasMatch();
}

} // namespace UpdatePolicy
