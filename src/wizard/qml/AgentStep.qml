import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Brava.Setup

// Step 1: the agent's name and number, and the control room.
ColumnLayout {
    id: screen
    required property QtObject wizard
    property bool manual: false
    spacing: 12
    readonly property bool shown: wizard.step === SetupStep.Number
    onShownChanged: if (shown) wizard.autoFillRoom()
    Component.onCompleted: if (shown) wizard.autoFillRoom()

    Title { text: "Who Are You?".toUpperCase() }
    Body {
        text: wizard.serverLocked ? "Your name, and the agent number you got at check-in (1–110)."
                                  : "Your name and a number (1–110). Choose a different number from other agents in your room."
    }
    TextField {
        objectName: "name"
        Layout.fillWidth: true
        placeholderText: "First and last name"
        text: wizard.nameText
        onTextEdited: wizard.nameText = text
        onAccepted: next.press() // Enter goes on as Next does
    }
    TextField {
        objectName: "number"
        Layout.preferredWidth: 120
        placeholderText: "e.g. 17"
        text: wizard.agentText
        onTextEdited: wizard.agentText = text
        onAccepted: next.press() // Enter goes on as Next does
    }
    Body { visible: wizard.serverLocked; text: "Connects to your control room automatically." }

    // The control-room block, only without a preset control room.
    ColumnLayout {
        visible: !wizard.serverLocked
        Layout.fillWidth: true
        spacing: 6
        Text { text: "CONTROL ROOM"; font.pixelSize: 12; font.bold: true; color: "#667085" }
        Text {
            // Still looking, not a fault: said in grey.
            visible: wizard.server.trim() === ""
            text: "Searching your Wi-Fi for the control room…"
            font.pixelSize: 14
            color: "#667085"
        }
        Text {
            objectName: "using"
            visible: wizard.server.trim() !== ""
            text: "Using control room: " + wizard.server
            font.pixelSize: 14
        }
        Repeater {
            model: wizard.rooms.length > 1 ? wizard.rooms : []
            delegate: Button {
                required property string modelData
                required property int index
                flat: true
                text: modelData
                onClicked: wizard.chooseRoom(index)
            }
        }
        Button {
            visible: !screen.manual
            flat: true
            font.underline: true // a link to the field
            text: "Enter address manually"
            onClicked: screen.manual = true
        }
        TextField {
            objectName: "server"
            visible: screen.manual
            Layout.fillWidth: true
            placeholderText: "192.168.1.10:4777"
            text: wizard.server
            onTextEdited: wizard.server = text
            onAccepted: next.press() // Enter goes on as Next does
        }
        Warning { visible: wizard.serverProblem !== ""; text: wizard.serverProblem }
    }

    Warning { visible: wizard.hasVerifyError; text: wizard.verifyError }
    Item { Layout.fillHeight: true }
    RowLayout {
        visible: wizard.verifying
        Layout.alignment: Qt.AlignRight
        BusyIndicator { running: wizard.verifying; implicitWidth: 28; implicitHeight: 28 }
        Text { text: "CHECKING…"; font.pixelSize: 14; font.bold: true }
    }
    Primary {
        id: next
        function press() { if (visible && enabled) wizard.verifyAndSave() }
        visible: !wizard.verifying
        text: "Next"
        enabled: wizard.hasAgentID && wizard.nameText.trim() !== ""
        onClicked: wizard.verifyAndSave()
    }
}
