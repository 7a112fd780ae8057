import QtQuick
import QtQuick.Controls
import QtQuick.Layouts

// A device menu whose first entry, "Automatic (best guess)", stands for the empty id.
RowLayout {
    id: picker
    property string label
    property var devices: []
    property string current
    signal picked(string uid)
    Layout.fillWidth: true
    Text { text: picker.label; font.pixelSize: 14 }
    ComboBox {
        Layout.fillWidth: true
        model: [ "Automatic (best guess)" ].concat(picker.devices.map(d => d.name))
        currentIndex: {
            for (let i = 0; i < picker.devices.length; ++i)
                if (picker.devices[i].uid === picker.current)
                    return i + 1
            return 0
        }
        onActivated: index => picker.picked(index === 0 ? "" : picker.devices[index - 1].uid)
    }
}
