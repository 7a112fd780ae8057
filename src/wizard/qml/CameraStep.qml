import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Brava.Setup

// Step 4: webcam access and choice.
ColumnLayout {
    required property QtObject wizard
    spacing: 14
    Title { text: "Allow Your Webcam" }
    Body {
        text: wizard.hasCamera ? "So your reactions can be recorded and featured in the show, and coaches can check in live. After setup, your camera stays off until the control room presses Go Live."
                               : "No webcam detected on this computer — that's okay, your audio still records. Plug one in before the event if you'd like to be on camera."
    }
    StatusLine { ok: wizard.camOK; okText: "Webcam allowed"; noText: "Not allowed yet" }
    DevicePicker {
        label: "Camera"
        devices: wizard.cams
        current: wizard.camUID
        onPicked: uid => wizard.selectCamera(uid)
    }
    Repair {
        visible: wizard.camDenied
        lines: [ "The webcam was blocked. To fix it:",
                 "1.  Add yourself to the video group: <b>sudo usermod -aG video $USER</b>, then log out and in",
                 "2.  Click <b>Restart App</b>" ]
        onRestart: wizard.relaunch(wizard.step)
        onAskAgain: wizard.askCamera()
    }
    Item { Layout.fillHeight: true }
    RowLayout {
        Layout.fillWidth: true
        Button { text: "Skip — no camera"; flat: true; onClicked: wizard.step = SetupStep.Test }
        Item { Layout.fillWidth: true }
        Primary {
            text: wizard.camOK ? "Next" : "Allow Webcam"
            onClicked: wizard.camOK ? (wizard.step = SetupStep.Test) : wizard.askCamera()
        }
    }
}
