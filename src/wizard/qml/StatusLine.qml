import QtQuick
import QtQuick.Layouts

// A granted/not-granted line: a green check with the ok text, or a neutral circle with the other.
RowLayout {
    property bool ok: false
    property string okText
    property string noText
    spacing: 8
    Rectangle {
        Layout.preferredWidth: 18; Layout.preferredHeight: 18; radius: 9 // the layout sizes it: never squeezed away
        color: ok ? "#2e9e44" : "transparent"
        border.color: ok ? "#2e9e44" : "#9a9a9a"
        border.width: 2
        Text { anchors.centerIn: parent; text: ok ? "✓" : ""; color: "white"; font.bold: true; font.pixelSize: 12 }
    }
    Text {
        objectName: "status"
        text: ok ? okText : noText
        font.pixelSize: 15
        color: ok ? "#2e9e44" : "#555555"
    }
}
