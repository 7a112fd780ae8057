import QtQuick
import QtQuick.Layouts
import Brava.Setup

// Step 2: microphone access.
ColumnLayout {
    required property QtObject wizard
    spacing: 14
    Title { text: "Allow Your Microphone" }
    Body { text: "So we can hear your side of the call." }
    StatusLine { ok: wizard.micOK; okText: "Microphone allowed"; noText: "Not allowed yet" }
    Repair {
        visible: wizard.micDenied
        lines: [ "The microphone was blocked. To fix it:",
                 wizard.sandboxed ? "1.  Let Brava Recorder use sound: run <b>flatpak override --user --socket=pulseaudio com.vantorra.brava-recorder</b>"
                                  : "1.  Make sure your sound server runs and lets you in: run <b>systemctl --user restart pipewire pipewire-pulse</b> (or <b>pulseaudio -k</b> on older systems)",
                 "2.  Click <b>Restart App</b>",
                 "Still stuck? Click <b>Ask Again</b> — it checks your microphone again." ]
        onRestart: wizard.relaunch(wizard.step)
        onAskAgain: wizard.askMic()
    }
    Item { Layout.fillHeight: true }
    Primary {
        text: wizard.micOK ? "Next" : "Allow Microphone"
        onClicked: wizard.micOK ? (wizard.step = SetupStep.Audio) : wizard.askMic()
    }
}
