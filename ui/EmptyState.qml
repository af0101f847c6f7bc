import QtQuick 2.15
import "KepStyle.js" as Style

// Stands in for the lists when there is nothing to show, and says why.
Item {
    id: emptyState
    objectName: "emptyState"

    // "upToDate", "cancelled", "noProducts" or "notChecked"; anything else reads as "notChecked".
    property string kind: "notChecked"

    readonly property var texts: ({
        upToDate: { icon: "uptodate", headline: qsTr("Everything is up to date"),
                    detail: qsTr("The service offers no updates or news for your products.") },
        cancelled: { icon: "cancelled", headline: qsTr("Check cancelled"),
                     detail: qsTr("The check was cancelled before any answer arrived.") },
        noProducts: { icon: "noproducts", headline: qsTr("No registered products"),
                      detail: qsTr("No products of this maker are registered on this computer.") },
        notChecked: { icon: "update", headline: qsTr("Not checked yet"),
                      detail: qsTr("Check for updates to see what is available.") }
    })
    readonly property var current: texts.hasOwnProperty(kind) ? texts[kind] : texts.notChecked

    implicitWidth: Style.contentMaxWidth
    implicitHeight: column.implicitHeight + 4 * Style.padding

    Column {
        id: column
        anchors.centerIn: parent
        width: parent.width
        spacing: Style.spacing

        KepIcon {
            objectName: "stateIcon"
            name: emptyState.current.icon
            size: Style.stateIconSize
            anchors.horizontalCenter: parent.horizontalCenter
        }
        Text {
            objectName: "stateHeadline"
            width: parent.width
            horizontalAlignment: Text.AlignHCenter
            text: emptyState.current.headline
            color: Style.textPrimary
            font.pixelSize: Style.fontState
            font.bold: true
            wrapMode: Text.Wrap
        }
        Text {
            objectName: "stateDetail"
            width: parent.width
            horizontalAlignment: Text.AlignHCenter
            text: emptyState.current.detail
            color: Style.textSecondary
            font.pixelSize: Style.fontNormal
            wrapMode: Text.Wrap
        }
    }
}
