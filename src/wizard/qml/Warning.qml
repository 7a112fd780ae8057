import QtQuick
import QtQuick.Layouts

// A warning with its triangle mark.
RowLayout {
    property alias text: label.text
    spacing: 8
    Layout.fillWidth: true
    Text { text: "⚠"; color: "#d9822b"; font.pixelSize: 16; Layout.alignment: Qt.AlignTop }
    Text {
        id: label
        objectName: "warning"
        color: "#b3261e"
        wrapMode: Text.WordWrap
        font.pixelSize: 14
        Layout.fillWidth: true
    }
}
