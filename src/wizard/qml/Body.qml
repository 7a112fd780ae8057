import QtQuick
import QtQuick.Layouts

// A paragraph; <b>…</b> marks bold spans.
Text {
    textFormat: Text.StyledText
    wrapMode: Text.WordWrap
    font.pixelSize: 14
    color: "#333333"
    Layout.fillWidth: true
}
