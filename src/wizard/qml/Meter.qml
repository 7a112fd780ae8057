import QtQuick
import QtQuick.Layouts

// A level bar for a 0–1 level, with a check and a word once heard.
ColumnLayout {
    property string label
    property real level: 0
    property bool heard: false
    property string heardText: "Heard"
    Layout.fillWidth: true
    RowLayout {
        Text { text: label; font.pixelSize: 14; Layout.fillWidth: true }
        Text { visible: heard; text: "✓ " + heardText; color: "#2e9e44"; font.pixelSize: 14 }
    }
    Rectangle {
        Layout.fillWidth: true
        height: 12
        radius: 6
        color: "#e4e7ec"
        Rectangle {
            width: parent.width * Math.max(0, Math.min(1, level * 4))
            height: parent.height
            radius: 6
            color: heard ? "#2e9e44" : "#1769e0"
        }
    }
}
