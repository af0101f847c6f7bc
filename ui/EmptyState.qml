import QtQuick 2.15
import QtQuick.Controls 2.15
import "KepStyle.js" as Style

// Stands in for the lists when there is nothing to show, and says why.
Item {
    id: emptyState
    objectName: "emptyState"

    // "upToDate", "checking", "unreachable", "offline", "cancelled", "noProducts" or
    // "notChecked"; anything else reads as "notChecked".
    property string kind: "notChecked"
    // Why nothing could be checked ("unreachable").
    property string reason
    // Which product of how many is being asked ("checking"); 0 while the count is not known.
    property int productIndex: 0
    property int productCount: 0

    // "Try again" of the unreachable state.
    signal retryRequested()

    readonly property var texts: ({
        upToDate: { icon: "uptodate", headline: qsTr("Everything is up to date"),
                    detail: qsTr("The service offers no updates or news for your products.") },
        checking: { icon: "update", headline: qsTr("Checking for updates\u2026"),
                    detail: productIndex > 0 && productCount > 0
                            ? qsTr("Checking product %1 of %2").arg(productIndex).arg(productCount)
                            : qsTr("Reading the registered products") },
        unreachable: { icon: "unreachable", headline: qsTr("Could not check for updates"),
                       detail: reason.length > 0 ? qsTr("The service could not be reached: %1.").arg(reason)
                                                 : qsTr("The service could not be reached.") },
        offline: { icon: "unreachable", headline: qsTr("Nothing to show"),
                   detail: qsTr("What could be checked offers no updates or news; some products could not be checked.") },
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
            color: emptyState.kind === "unreachable" ? Style.errorText : Style.textPrimary
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
        Button {
            objectName: "retryButton"
            anchors.horizontalCenter: parent.horizontalCenter
            visible: emptyState.kind === "unreachable"
            text: qsTr("Try again")
            onClicked: emptyState.retryRequested()
        }
    }
}
