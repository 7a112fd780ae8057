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
        items: [ "Look for the dark round icon in your system tray: white sound bars when connected, green bars while the control room listens, a red dot while you are recorded, blue during a call, an orange ring when not connected, a yellow triangle when something is wrong. Hover it to see the details, click it for the menu",
                 "It runs quietly and records only when the control room starts",
                 "Your webcam light stays on while the app is running",
                 "Keep using your dialer and Zoom like normal" ]
    }
    Item { Layout.fillHeight: true }
    Primary { text: "Done"; onClicked: wizard.finish() }
}
