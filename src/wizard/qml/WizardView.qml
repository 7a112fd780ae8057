import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Brava.Setup

// The setup wizard: a header with the event and the step strip, the current step's screen, and
// a row to go back. Every button calls the model; nothing is kept here.
Rectangle {
    id: view
    required property QtObject wizard
    color: "#f7f8fa"
    implicitWidth: 720
    implicitHeight: 640

    ColumnLayout {
        anchors.fill: parent
        spacing: 0

        Rectangle {
            Layout.fillWidth: true
            implicitHeight: header.implicitHeight + 28
            color: "#14213d"
            ColumnLayout {
                id: header
                anchors.fill: parent
                anchors.margins: 14
                spacing: 8
                RowLayout {
                    Text { text: "THE VANTORRA "; color: "white"; font.pixelSize: 18; font.letterSpacing: 2 }
                    Text { text: "RECORDER"; color: "#fca311"; font.pixelSize: 18; font.bold: true; font.letterSpacing: 2 }
                    Item { Layout.fillWidth: true }
                }
                RowLayout {
                    spacing: 4
                    Repeater {
                        model: view.wizard.stepNames
                        delegate: Button {
                            required property string modelData
                            required property int index
                            text: modelData
                            flat: true
                            enabled: index <= view.wizard.furthest
                            Accessible.name: "Go to " + modelData
                            onClicked: view.wizard.go(index)
                            contentItem: Text {
                                text: parent.text
                                font.pixelSize: 13
                                font.bold: index === view.wizard.step
                                color: index === view.wizard.step ? "#fca311" : (parent.enabled ? "white" : "#6b7794")
                            }
                        }
                    }
                }
            }
        }

        StackLayout {
            Layout.fillWidth: true
            Layout.fillHeight: true
            Layout.margins: 24
            currentIndex: Math.max(0, Math.min(SetupStep.Done, view.wizard.step))
            WelcomeStep { wizard: view.wizard }
            AgentStep { wizard: view.wizard }
            MicStep { wizard: view.wizard }
            ScreenStep { wizard: view.wizard }
            CameraStep { wizard: view.wizard }
            TestStep { wizard: view.wizard }
            DoneStep { wizard: view.wizard }
        }

        RowLayout {
            Layout.fillWidth: true
            Layout.leftMargin: 24
            Layout.bottomMargin: 12
            visible: view.wizard.step > 0 && view.wizard.step < SetupStep.Done
            Button { text: "‹ Back"; flat: true; onClicked: view.wizard.back() }
        }
    }
}
