#pragma once

// Whether this user may open the cameras. Linux has no consent prompt: access is decided by the
// device nodes' permissions (usually membership of the "video" group).
namespace CameraAccess {

enum class Status { NotDetermined, Denied, Authorized };

/// Authorized when a camera node can be opened for capture (or synthetic cameras are in use),
/// Denied when camera nodes exist but none may be opened, NotDetermined when there is none.
Status status();
/// The same decision for the nodes of one folder (tests).
Status statusOf(const char *devFolder);

} // namespace CameraAccess
