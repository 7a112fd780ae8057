import QtQuick
import QtQuick.Layouts

// Step 6: finished. Where the agent is found afterwards: the tray, or on a desktop without one,
// the floating panel.
ColumnLayout {
    required property QtObject wizard
    spacing: 14
    Title { text: "You're In." }
    Body {
        text: wizard.trayAvailable
              ? "You can close this window. Brava Recorder runs quietly in your system tray and starts automatically when you log in."
              : "You can close this window. Brava Recorder runs quietly in the background and starts automatically when you log in."
    }
    Bullets {
        items: [ wizard.trayAvailable
                 ? "Look for the dark round icon in your system tray: white sound bars when connected, green bars while the control room listens, a red dot while you are recorded, blue during a call, an orange ring when not connected, a yellow triangle when something is wrong. Hover it to see the details, click it for the menu"
                 : "Your desktop has no system tray: Brava Recorder's panel appears at the lower right of your screen when the control room makes you live. Right-click the panel for the menu; starting Brava Recorder again opens the menu too",
                 "It runs quietly and records only when the control room starts",
                 "Your webcam light stays on while the app is running",
                 "Keep using your dialer and Zoom like normal" ]
    }
    Item { Layout.fillHeight: true }
    Primary { text: "Done"; onClicked: wizard.finish() }
}
