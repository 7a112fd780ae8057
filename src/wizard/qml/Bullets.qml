import QtQuick
import QtQuick.Layouts

// A list of short lines, each with a bullet.
ColumnLayout {
    property var items: []
    spacing: 6
    Layout.fillWidth: true
    Repeater {
        model: items
        delegate: RowLayout {
            required property string modelData
            Layout.fillWidth: true
            Text { text: "•"; font.pixelSize: 14; color: "#1769e0"; Layout.alignment: Qt.AlignTop }
            Text { text: modelData; textFormat: Text.StyledText; wrapMode: Text.WordWrap; font.pixelSize: 14; Layout.fillWidth: true }
        }
    }
}
