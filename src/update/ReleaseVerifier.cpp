#include "ReleaseVerifier.h"

#include "ReleaseManifest.h"
#include "Sha256.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSettings>

#include <elf.h>

namespace {

const QString kSignatureFailed = QStringLiteral("Signature validation failed");
const QString kIntegrityFailed = QStringLiteral("Download integrity check failed");
const QString kVersionMismatch = QStringLiteral("Update version mismatch");

ReleaseVerifier::Result fail(const QString &error, const QString &detail)
{
    return ReleaseVerifier::Result{false, error, detail, QString()};
}

QByteArray readSmall(const QString &path, qint64 max, bool *ok)
{
    QFile f(path);
    *ok = QFileInfo(path).isFile() && !QFileInfo(path).isSymLink() && f.open(QIODevice::ReadOnly) && f.size() <= max;
    return *ok ? f.readAll() : QByteArray();
}

#if defined(__x86_64__)
constexpr int kMachine = EM_X86_64;
#elif defined(__aarch64__)
constexpr int kMachine = EM_AARCH64;
#elif defined(__i386__)
constexpr int kMachine = EM_386;
#elif defined(__arm__)
constexpr int kMachine = EM_ARM;
#elif defined(__riscv)
constexpr int kMachine = EM_RISCV;
#else
#error "unknown architecture: add its ELF machine number"
#endif

} // namespace

bool ReleaseVerifier::isNativeElf(const QString &path)
{
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly))
        return false;
    const QByteArray head = f.read(20);
    if (head.size() < 20 || !head.startsWith("\x7f" "ELF"))
        return false;
    const auto u = [&head](int i) { return quint8(head[i]); };
    const int elfClass = sizeof(void *) == 8 ? ELFCLASS64 : ELFCLASS32;
    const bool little = Q_BYTE_ORDER == Q_LITTLE_ENDIAN;
    const int machine = little ? u(18) | u(19) << 8 : u(18) << 8 | u(19);
    return u(EI_CLASS) == elfClass && u(EI_DATA) == (little ? ELFDATA2LSB : ELFDATA2MSB) && machine == kMachine;
}

ReleaseVerifier::Result ReleaseVerifier::verify(const Input &in)
{
    // 1. Unpack, into a folder that is named "verified" only once every step below has passed.
    const QString unpackFolder = in.workFolder + QStringLiteral("/unpacking");
    if (!QDir().mkdir(unpackFolder))
        return fail(kSignatureFailed, QStringLiteral("cannot make the unpack folder"));
    QFile::setPermissions(unpackFolder, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    QList<ArchiveUnpacker::Entry> entries;
    QString detail;
    if (!ArchiveUnpacker::unpack(in.archive, unpackFolder, in.limits, &entries, &detail))
        return fail(kSignatureFailed, detail);

    // 2. One folder, the app's.
    const QString top = QLatin1String(kAppFolder);
    const QString app = unpackFolder + QLatin1Char('/') + top;
    QList<ArchiveUnpacker::Entry> inside;
    for (const ArchiveUnpacker::Entry &e : std::as_const(entries)) {
        if (e.path == top && e.type == ArchiveUnpacker::Entry::Dir)
            continue;
        if (!e.path.startsWith(top + QLatin1Char('/')))
            return fail(kIntegrityFailed, QStringLiteral("entry outside the app folder: ") + e.path);
        inside.append(e);
        inside.last().path = e.path.mid(top.size() + 1);
    }
    if (!QFileInfo(app).isDir() || QFileInfo(app).isSymLink())
        return fail(kIntegrityFailed, QStringLiteral("no app folder in the archive"));

    // 3. Signature and coverage.
    bool readOk = false;
    const QByteArray text = readSmall(app + QLatin1Char('/') + QLatin1String(ReleaseManifest::kFileName),
                                      ReleaseManifest::kMaxBytes, &readOk);
    if (!readOk)
        return fail(kSignatureFailed, QStringLiteral("no manifest"));
    const QByteArray signature = readSmall(app + QLatin1Char('/') + QLatin1String(ReleaseManifest::kSignatureName),
                                           1024, &readOk);
    if (!readOk)
        return fail(kSignatureFailed, QStringLiteral("no manifest signature"));
    if (!ReleaseManifest::verifySignature(text, signature, in.publicKeyPem, &detail))
        return fail(kSignatureFailed, detail);
    const std::optional<ReleaseManifest> manifest = ReleaseManifest::parse(text, &detail);
    if (!manifest)
        return fail(kSignatureFailed, detail);
    if (manifest->identifier != in.identifier)
        return fail(kSignatureFailed, QStringLiteral("manifest is for another program: ") + manifest->identifier);
    qsizetype covered = 0;
    for (const ArchiveUnpacker::Entry &e : std::as_const(inside)) {
        if (e.type == ArchiveUnpacker::Entry::Dir || e.path == QLatin1String(ReleaseManifest::kFileName)
            || e.path == QLatin1String(ReleaseManifest::kSignatureName))
            continue;
        const auto item = manifest->items.constFind(e.path);
        if (item == manifest->items.constEnd())
            return fail(kSignatureFailed, QStringLiteral("file not in the manifest: ") + e.path);
        ++covered;
        const bool same = e.type == ArchiveUnpacker::Entry::Link
            ? item->link && item->target == e.target
            : !item->link && item->size == e.size && item->mode == e.mode
                && item->sha256 == Sha256::ofFile(app + QLatin1Char('/') + e.path);
        if (!same)
            return fail(kSignatureFailed, QStringLiteral("file differs from the manifest: ") + e.path);
    }
    if (covered != manifest->items.size())
        return fail(kSignatureFailed, QStringLiteral("manifest lists files the archive does not hold"));

    // 4. Assessment.
    for (const ArchiveUnpacker::Entry &e : std::as_const(inside)) {
        if (e.mode & 06000)
            return fail(kSignatureFailed, QStringLiteral("set-uid or set-gid entry: ") + e.path);
        if (e.type == ArchiveUnpacker::Entry::Link && !ArchiveUnpacker::linkStaysInside(e.path, e.target))
            return fail(kSignatureFailed, QStringLiteral("link leaves the app folder: ") + e.path);
    }
    const QString exe = app + QLatin1Char('/') + QLatin1String(kExecutable);
    if (!QFileInfo(exe).isFile() || QFileInfo(exe).isSymLink() || !isNativeElf(exe))
        return fail(kSignatureFailed, QStringLiteral("the executable is not a program for this computer"));

    // 5. Version.
    const QString infoVersion = QSettings(app + QStringLiteral("/Info.ini"), QSettings::IniFormat)
                                    .value(QStringLiteral("CFBundleShortVersionString"))
                                    .toString();
    if (infoVersion != in.version || manifest->version != in.version)
        return fail(kVersionMismatch, QStringLiteral("archive holds version ") + infoVersion);
    const QString verified = in.workFolder + QStringLiteral("/verified");
    if (!QDir().rename(unpackFolder, verified))
        return fail(kIntegrityFailed, QStringLiteral("cannot name the verified folder"));
    return Result{true, QString(), QString(), verified + QLatin1Char('/') + top};
}
