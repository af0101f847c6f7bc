import QtQuick 2.15
import "KepStyle.js" as Style

// Marks an update the host can install without leaving the update manager.
Rectangle {
    implicitWidth: content.implicitWidth + 2 * Style.badgePadding
    implicitHeight: Style.badgeHeight
    radius: height / 2
    color: Style.badgeBackground
    border.color: Style.badgeBorder
    border.width: Style.borderWidth

    Row {
        id: content
        anchors.centerIn: parent
        spacing: Style.spacingSmall
        KepIcon {
            name: "oneclick"
            size: Style.badgeIconSize
            anchors.verticalCenter: parent.verticalCenter
        }
        Text {
            text: qsTr("One-click update")
            color: Style.badgeText
            font.pixelSize: Style.fontSmall
            font.bold: true
            anchors.verticalCenter: parent.verticalCenter
        }
    }
}
