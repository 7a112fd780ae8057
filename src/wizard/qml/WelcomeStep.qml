import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Brava.Setup

// Step 0: what the app records, and the agent's consent.
ColumnLayout {
    required property QtObject wizard
    spacing: 14
    Title { text: "Welcome, Agent." }
    Body {
        text: "This app records your <b>microphone, computer audio, and webcam</b> during The Vantorra, so your calls can be coached and featured in the show."
    }
    Bullets {
        items: [ "Records only when the control room starts recording",
                 "Your webcam can turn on during setup testing. After setup it stays off until the control room presses Go Live.",
                 "A coach may listen in live",
                 "Never records your screen or your files",
                 "Your dialer, Zoom, and other apps keep working normally" ]
    }
    CheckBox {
        id: consent
        objectName: "agree"
        Layout.fillWidth: true
        checked: wizard.agree
        onToggled: wizard.agree = checked
        text: "I agree to have my call audio and webcam recorded and monitored live during the event, and I'll give the required recording notice on my calls."
        contentItem: Text {
            leftPadding: consent.indicator.width + consent.spacing
            text: consent.text
            wrapMode: Text.WordWrap
            verticalAlignment: Text.AlignVCenter
            font.pixelSize: 14
        }
    }
    Item { Layout.fillHeight: true }
    Primary { text: "Get Started"; enabled: wizard.agree; onClicked: wizard.step = SetupStep.Number }
}
