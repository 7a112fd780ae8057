import QtQuick
import QtQuick.Layouts

// Step 6: finished.
ColumnLayout {
    required property QtObject wizard
    spacing: 14
    Title { text: "You're In." }
    Body {
        text: "You can close this window. Brava Recorder runs quietly in your system tray and starts automatically when you log in."
    }
    Bullets {
        items: [ "Look for the round icon with sound bars in your system tray; hover it to see whether you are connected and recorded, click it for the menu",
                 "It runs quietly and records only when the control room starts",
                 "Your webcam light stays on while the app is running",
                 "Keep using your dialer and Zoom like normal" ]
    }
    Item { Layout.fillHeight: true }
    Primary { text: "Done"; onClicked: wizard.finish() }
}
