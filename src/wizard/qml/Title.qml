import QtQuick
import QtQuick.Layouts

// A screen's title.
Text {
    font.pixelSize: 26
    font.bold: true
    color: "#14213d"
    wrapMode: Text.WordWrap
    Layout.fillWidth: true
}
