import QtQuick
import QtQuick.Controls
import QtQuick.Layouts

// What fixes a refused permission on this computer, and the two things the app can do itself.
Rectangle {
    id: repair
    property var lines: []
    signal restart()
    signal askAgain()
    Layout.fillWidth: true
    implicitHeight: column.implicitHeight + 24
    radius: 8
    color: "#fff4e5"
    border.color: "#f0c36d"
    ColumnLayout {
        id: column
        anchors.fill: parent
        anchors.margins: 12
        spacing: 6
        Repeater {
            model: repair.lines
            delegate: Text {
                required property string modelData
                text: modelData
                textFormat: Text.StyledText
                wrapMode: Text.WordWrap
                font.pixelSize: 14
                Layout.fillWidth: true
            }
        }
        RowLayout {
            Button { text: "Restart App"; onClicked: repair.restart() }
            Button { text: "Ask Again"; onClicked: repair.askAgain() }
        }
    }
}
