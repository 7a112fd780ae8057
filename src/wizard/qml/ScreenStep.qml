import QtQuick
import QtQuick.Layouts
import Brava.Setup

// Step 3: computer audio (the monitor of the sound output).
ColumnLayout {
    required property QtObject wizard
    spacing: 14
    Title { text: "Allow Computer Audio" }
    Body {
        text: "So we can hear the customer through your dialer or Zoom. Linux offers this as the <b>monitor of your sound output</b> — we only use the audio."
    }
    StatusLine { ok: wizard.screenOK; okText: "Computer audio allowed"; noText: "Not allowed yet" }
    Repair {
        visible: (wizard.screenAsked || wizard.screenDenied) && !wizard.screenOK
        lines: [ "1.  Click <b>Allow Computer Audio</b> below",
                 wizard.sandboxed ? "2.  Let Brava Recorder use sound: run <b>flatpak override --user --socket=pulseaudio com.vantorra.brava-recorder</b>"
                                  : "2.  Make sure your sound server runs and has an output (speakers or headphones): <b>pactl info</b> shows it",
                 "3.  Click <b>Restart App</b>",
                 "Turned it on but still stuck? Click <b>Ask Again</b> to check again." ]
        onRestart: wizard.relaunch(wizard.step)
        onAskAgain: wizard.askScreen()
    }
    Item { Layout.fillHeight: true }
    Primary {
        text: wizard.screenOK ? "Next" : (wizard.screenAsked ? "Check Again" : "Allow Computer Audio")
        onClicked: wizard.screenOK ? (wizard.step = SetupStep.Camera) : wizard.askScreen()
    }
}
