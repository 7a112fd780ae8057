#pragma once

// What this user may capture. On Linux there is no consent prompt: a device is "authorized" when
// the system lets this program open it and "denied" when it refuses; until a check has been made
// the answer is "not determined". Every decision of this kind is made here.
namespace Permissions {

enum class Status { NotDetermined, Denied, Authorized };

/// Microphone access: whether the sound server accepts this program.
Status microphone();
/// Computer-audio access: whether the default output's monitor can be opened.
Status computerAudio();
/// Camera access: whether this user may open the video devices.
Status camera();

/// Text for logs: "true" when authorized, else "false".
const char *flag(Status status);

} // namespace Permissions
