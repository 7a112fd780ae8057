#include "SyntheticCameraBackend.h"

#include "CameraTexts.h"
#include "SyntheticCamera.h"

#include <QRegularExpression>

SyntheticCameraBackend::SyntheticCameraBackend(Setup setup)
    : m_setup(setup)
{
}

std::optional<SyntheticCameraBackend::Setup> SyntheticCameraBackend::parse(const QString &text)
{
    static const QRegularExpression form(QStringLiteral(R"(^\s*(\d{1,2})(?::(\d{2,4})x(\d{2,4})@(\d{1,3}))?\s*$)"));
    const QRegularExpressionMatch m = form.match(text);
    if (!m.hasMatch())
        return std::nullopt;
    Setup setup;
    setup.count = m.captured(1).toInt();
    if (m.hasCaptured(2)) {
        setup.size = QSize(m.captured(2).toInt(), m.captured(3).toInt());
        setup.fps = m.captured(4).toInt();
    }
    const bool sane = setup.size.width() >= 64 && setup.size.height() >= 48 && setup.size.width() % 2 == 0
        && setup.size.height() % 2 == 0 && setup.size.width() <= 3840 && setup.size.height() <= 2160
        && setup.fps >= 1 && setup.fps <= 120;
    if (!sane)
        return std::nullopt;
    return setup;
}

QList<Device> SyntheticCameraBackend::list()
{
    QList<Device> cameras;
    for (int n = 1; n <= m_setup.count; ++n) {
        Device d;
        d.uid = QStringLiteral("synthetic-%1").arg(n);
        d.name = QStringLiteral("Synthetic Camera %1").arg(n);
        d.builtIn = n == 1;
        d.isDefault = n == 1;
        cameras.append(d);
    }
    return cameras;
}

CameraOpen SyntheticCameraBackend::open(const QString &uid, QSize wanted, FrameSink sink)
{
    Q_UNUSED(wanted); // a synthetic camera offers only its one size
    const QList<Device> cameras = list();
    for (qsizetype i = 0; i < cameras.size(); ++i) {
        if (cameras[i].uid == uid) {
            const int64_t base = int64_t(i + 1) * kCounterStep;
            return {std::make_unique<SyntheticCamera>(cameras[i], m_setup.size, m_setup.fps, int(i + 1), base, std::move(sink)), QString()};
        }
    }
    return {nullptr, CameraTexts::busy()};
}

CameraAccess::Status SyntheticCameraBackend::access() const
{
    return m_refused ? CameraAccess::Status::Denied : CameraAccess::Status::Authorized;
}
