#include "ReleaseManifest.h"

#include "ArchiveUnpacker.h"
#include "UpdatePolicy.h"

#include <QList>

#include <memory>
#include <openssl/evp.h>
#include <openssl/pem.h>

std::optional<ReleaseManifest> ReleaseManifest::parse(const QByteArray &text, QString *error)
{
    if (!text.endsWith('\n')) {
        *error = QStringLiteral("manifest does not end with a line break");
        return std::nullopt;
    }
    const QList<QByteArray> lines = text.chopped(1).split('\n');
    if (lines.size() < 3 || lines[0] != "brava-release-manifest 1" || !lines[1].startsWith("identifier=")
        || !lines[2].startsWith("version=")) {
        *error = QStringLiteral("manifest header is malformed");
        return std::nullopt;
    }
    ReleaseManifest m;
    m.identifier = QString::fromUtf8(lines[1].mid(11));
    m.version = QString::fromUtf8(lines[2].mid(8));
    for (qsizetype i = 3; i < lines.size(); ++i) {
        const QList<QByteArray> f = lines[i].split('\t');
        Item item;
        bool ok = false;
        QString path;
        if (f.size() == 5 && f[0] == "file") {
            item.sha256 = QString::fromLatin1(f[1]);
            item.size = f[2].toLongLong(&ok);
            bool modeOk = false;
            item.mode = f[3].toUInt(&modeOk, 8);
            ok = ok && modeOk && item.size >= 0 && item.mode <= 07777 && UpdatePolicy::digestWellFormed(item.sha256);
            path = QString::fromUtf8(f[4]);
        } else if (f.size() == 3 && f[0] == "link") {
            item.link = true;
            item.target = QString::fromUtf8(f[1]);
            path = QString::fromUtf8(f[2]);
            ok = !item.target.isEmpty();
        }
        if (!ok || ArchiveUnpacker::cleanPath(path) != path || m.items.contains(path)) {
            *error = QStringLiteral("manifest line %1 is malformed").arg(i + 1);
            return std::nullopt;
        }
        m.items.insert(path, item);
    }
    return m;
}

bool ReleaseManifest::verifySignature(const QByteArray &text, const QByteArray &signature,
                                      const QByteArray &publicKeyPem, QString *error)
{
    std::unique_ptr<BIO, decltype(&BIO_free)> bio(BIO_new_mem_buf(publicKeyPem.constData(), int(publicKeyPem.size())),
                                                  &BIO_free);
    std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(PEM_read_bio_PUBKEY(bio.get(), nullptr, nullptr, nullptr),
                                                            &EVP_PKEY_free);
    if (!key || EVP_PKEY_id(key.get()) != EVP_PKEY_ED25519) {
        *error = QStringLiteral("the built-in update key is not an Ed25519 public key");
        return false;
    }
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> ctx(EVP_MD_CTX_new(), &EVP_MD_CTX_free);
    const bool ok = EVP_DigestVerifyInit(ctx.get(), nullptr, nullptr, nullptr, key.get()) == 1
        && EVP_DigestVerify(ctx.get(), reinterpret_cast<const unsigned char *>(signature.constData()),
                            size_t(signature.size()), reinterpret_cast<const unsigned char *>(text.constData()),
                            size_t(text.size()))
            == 1;
    if (!ok)
        *error = QStringLiteral("manifest signature does not verify with the built-in key");
    return ok;
}
