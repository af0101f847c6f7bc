import QtQuick 2.15
import "KepStyle.js" as Style

// Heads a group of entries, with the number of entries beside it when one is given.
Item {
    id: header
    objectName: "sectionHeader"

    property string text
    property int count: -1

    implicitWidth: Style.contentMaxWidth
    implicitHeight: row.implicitHeight + Style.spacing + rule.height

    Row {
        id: row
        spacing: Style.spacing
        Text {
            objectName: "sectionTitle"
            text: header.text
            color: Style.textPrimary
            font.pixelSize: Style.fontSection
            font.bold: true
            anchors.verticalCenter: parent.verticalCenter
        }
        Rectangle {
            objectName: "sectionCount"
            visible: header.count >= 0
            width: Math.max(Style.countMinWidth, countText.implicitWidth + Style.spacing)
            height: countText.implicitHeight + Style.spacingSmall
            radius: height / 2
            color: Style.accent
            anchors.verticalCenter: parent.verticalCenter
            Text {
                id: countText
                anchors.centerIn: parent
                text: header.count
                color: Style.cardBackground
                font.pixelSize: Style.fontSmall
                font.bold: true
            }
        }
    }

    Rectangle {
        id: rule
        anchors.left: parent.left
        anchors.right: parent.right
        anchors.bottom: parent.bottom
        height: Style.ruleHeight
        color: Style.sectionRule
    }
}
