import QtQuick
import QtQuick.Controls
import QtQuick.Layouts

// The screen's main button: filled; dimmed and inert when not enabled.
Button {
    id: control
    Layout.alignment: Qt.AlignRight
    implicitWidth: Math.max(140, contentItem.implicitWidth + 40)
    implicitHeight: 40
    opacity: enabled ? 1 : 0.4
    contentItem: Text {
        text: control.text
        color: "white"
        font.pixelSize: 15
        font.bold: true
        horizontalAlignment: Text.AlignHCenter
        verticalAlignment: Text.AlignVCenter
    }
    background: Rectangle {
        radius: 8
        color: control.down ? "#0b5ed7" : "#1769e0"
    }
}
