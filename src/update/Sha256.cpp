#include "Sha256.h"

#include <QFile>

#include <openssl/evp.h>

struct Sha256::Ctx
{
    EVP_MD_CTX *md = EVP_MD_CTX_new();
    ~Ctx() { EVP_MD_CTX_free(md); }
};

Sha256::Sha256()
    : m_ctx(std::make_unique<Ctx>())
{
    EVP_DigestInit_ex(m_ctx->md, EVP_sha256(), nullptr);
}

Sha256::~Sha256() = default;

void Sha256::add(const char *data, qint64 size)
{
    EVP_DigestUpdate(m_ctx->md, data, size_t(size));
}

QString Sha256::hex()
{
    unsigned char out[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_DigestFinal_ex(m_ctx->md, out, &length);
    return QString::fromLatin1(QByteArray(reinterpret_cast<const char *>(out), int(length)).toHex());
}

QString Sha256::ofFile(const QString &path)
{
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly))
        return QString();
    Sha256 sha;
    QByteArray buffer(1 << 16, Qt::Uninitialized);
    for (qint64 n; (n = f.read(buffer.data(), buffer.size())) > 0;)
        sha.add(buffer.constData(), n);
    return sha.hex();
}
