import QtQuick 2.15
import "KepStyle.js" as Style

// One update offered for an installed product: what it is, when, how big, and where to read more.
Rectangle {
    id: entry
    objectName: "updateEntry"

    property string updateId
    property string title
    property string publishDate
    property string downloadSize
    property string description
    property string infoUrl
    // "1" when the host may install it in one click; the service's previous-generation
    // products say "0".
    property string oneClickSupported
    property var relatedUpdates: []

    signal moreInformationRequested(string url)

    implicitWidth: Style.contentMaxWidth
    implicitHeight: body.implicitHeight + 2 * Style.padding
    color: Style.cardBackground
    radius: Style.radius
    border.color: Style.cardBorder
    border.width: Style.borderWidth

    KepIcon {
        id: icon
        name: "update"
        anchors.left: parent.left
        anchors.top: parent.top
        anchors.margins: Style.padding
    }

    Column {
        id: body
        anchors.left: icon.right
        anchors.right: parent.right
        anchors.top: parent.top
        anchors.margins: Style.padding
        spacing: Style.spacingSmall

        Item {
            width: parent.width
            height: Math.max(titleText.implicitHeight, badge.visible ? badge.implicitHeight : 0)
            Text {
                id: titleText
                objectName: "title"
                anchors.left: parent.left
                anchors.right: badge.visible ? badge.left : parent.right
                anchors.rightMargin: badge.visible ? Style.spacing : 0
                anchors.verticalCenter: parent.verticalCenter
                text: entry.title.trim()
                color: Style.textPrimary
                font.pixelSize: Style.fontTitle
                font.bold: true
                wrapMode: Text.Wrap
            }
            OneClickBadge {
                id: badge
                objectName: "oneClickBadge"
                anchors.right: parent.right
                anchors.verticalCenter: parent.verticalCenter
                visible: entry.oneClickSupported === "1"
            }
        }

        Row {
            spacing: Style.spacing
            visible: dateText.visible || sizeText.visible
            Text {
                id: dateText
                objectName: "publishDate"
                text: entry.publishDate.trim()
                visible: text !== ""
                color: Style.textSecondary
                font.pixelSize: Style.fontSmall
            }
            Text {
                text: "\u00b7"
                visible: dateText.visible && sizeText.visible
                color: Style.textMuted
                font.pixelSize: Style.fontSmall
            }
            Text {
                id: sizeText
                objectName: "downloadSize"
                text: Style.humanSize(entry.downloadSize)
                visible: text !== ""
                color: Style.textSecondary
                font.pixelSize: Style.fontSmall
            }
        }

        Text {
            objectName: "description"
            width: parent.width
            text: entry.description.trim()
            visible: text !== ""
            color: Style.textPrimary
            font.pixelSize: Style.fontNormal
            wrapMode: Text.Wrap
        }

        Text {
            objectName: "relatedUpdates"
            width: parent.width
            readonly property var numbers: entry.relatedUpdates ? entry.relatedUpdates : []
            text: numbers.length > 0 ? qsTr("Related updates: %1").arg(numbers.join(", ")) : ""
            visible: numbers.length > 0
            color: Style.textSecondary
            font.pixelSize: Style.fontSmall
            wrapMode: Text.Wrap
        }

        Text {
            objectName: "moreInformation"
            text: qsTr("More information")
            visible: entry.infoUrl.trim() !== ""
            color: Style.link
            font.pixelSize: Style.fontNormal
            font.underline: true
            MouseArea {
                anchors.fill: parent
                cursorShape: Qt.PointingHandCursor
                onClicked: entry.moreInformationRequested(entry.infoUrl.trim())
            }
        }
    }
}
