import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Brava.Setup

// Step 5: the sound check; it starts when the screen appears.
ColumnLayout {
    required property QtObject wizard
    spacing: 14
    readonly property bool shown: wizard.step === SetupStep.Test
    onShownChanged: if (shown) wizard.startTest()
    Component.onCompleted: if (shown) wizard.startTest()
    Title { text: "Quick Sound Check" }
    Body {
        text: "Pick the mic you'll use, then say something out loud — the bar should jump when you talk into it. Computer audio is already set up."
    }
    DevicePicker {
        label: "Microphone"
        devices: wizard.mics
        current: wizard.micUID
        onPicked: uid => wizard.selectMic(uid)
    }
    Meter { label: "Your microphone"; level: wizard.mic; heard: wizard.micHeard }
    Meter { label: "Computer audio"; level: wizard.sys; heard: wizard.sysHeard; heardText: "Ready" }
    Text {
        objectName: "connection"
        text: wizard.connected ? "Connected to control room as Agent #" + wizard.agentNumber
                               : "Not connected to control room — check Wi-Fi"
        color: wizard.connected ? "#2e9e44" : "#b3261e"
        font.pixelSize: 14
    }
    Item { Layout.fillHeight: true }
    RowLayout {
        Layout.fillWidth: true
        Button { text: "Skip test"; flat: true; onClicked: wizard.step = SetupStep.Done }
        Item { Layout.fillWidth: true }
        Primary { text: "Finish"; onClicked: wizard.step = SetupStep.Done }
    }
}
