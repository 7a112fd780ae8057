#pragma once

#include <QByteArray>
#include <QString>

#include <memory>

// SHA-256 fed piece by piece (OpenSSL EVP), so a file of any size is hashed without holding it.
class Sha256
{
public:
    Sha256();
    ~Sha256();
    Sha256(const Sha256 &) = delete;
    Sha256 &operator=(const Sha256 &) = delete;

    /// Adds bytes to the digest.
    void add(const char *data, qint64 size);
    /// The digest as 64 lower-case hexadecimal digits; the object is spent afterwards.
    QString hex();

    /// The digest of a whole file, read in pieces; "" when it cannot be read.
    static QString ofFile(const QString &path);

private:
    struct Ctx;
    std::unique_ptr<Ctx> m_ctx;
};
