#pragma once

class AudioBackend;

// What this user may capture. On Linux there is no consent prompt: a device is "authorized" when
// the system lets this program open it and "denied" when it refuses; until a check has been made
// the answer is "not determined". Every decision of this kind is made here.
class Permissions
{
public:
    enum class Status { NotDetermined, Denied, Authorized };

    /// Answers from this sound server and the computer's video devices.
    explicit Permissions(AudioBackend &audio);

    /// Microphone access: whether the sound server accepts this program.
    Status microphone() const;
    /// Computer-audio access: whether the default output's monitor can be opened.
    Status computerAudio() const;
    /// Camera access: whether this user may open the video devices.
    Status camera() const;

    /// Text for logs: "true" when authorized, else "false".
    static const char *flag(Status status);

private:
    AudioBackend &m_audio;
};
