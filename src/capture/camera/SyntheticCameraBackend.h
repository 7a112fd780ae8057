#pragma once

#include "CameraBackend.h"

#include <atomic>
#include <optional>

// Synthetic cameras for tests and demos, chosen with BRAVA_FAKE_CAMERAS=<count>[:<W>x<H>@<fps>]
// (for example "2:640x360@30"; default size 1280x720 at 30 frames per second). Camera n has the
// uid "synthetic-<n>" and the name "Synthetic Camera <n>"; camera 1 is the built-in default.
class SyntheticCameraBackend : public CameraBackend
{
public:
    struct Setup {
        int count = 0;
        QSize size{1280, 720};
        int fps = 30;
    };

    /// Camera n's frame counter starts at n × kCounterStep.
    static constexpr int64_t kCounterStep = 10000000;

    explicit SyntheticCameraBackend(Setup setup);

    /// Reads a BRAVA_FAKE_CAMERAS value; none when it is not of the documented form.
    static std::optional<Setup> parse(const QString &text);

    QList<Device> list() override;
    CameraOpen open(const QString &uid, QSize wanted, FrameSink sink) override;
    CameraAccess::Status access() const override;
    /// Makes the cameras refuse this user, as video devices without the user's group would.
    void setRefused(bool refused) { m_refused = refused; }

private:
    const Setup m_setup;
    std::atomic<bool> m_refused{false};
};
