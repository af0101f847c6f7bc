import QtQuick 2.15
import "KepStyle.js" as Style

// One news message of the maker, shown once however many products carry it.
Rectangle {
    id: entry
    objectName: "newsEntry"

    property string newsId
    property string title
    property string publishDate
    property string description

    implicitWidth: Style.contentMaxWidth
    implicitHeight: body.implicitHeight + 2 * Style.padding
    color: Style.cardBackground
    radius: Style.radius
    border.color: Style.cardBorder
    border.width: Style.borderWidth

    KepIcon {
        id: icon
        name: "news"
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

        Text {
            objectName: "title"
            width: parent.width
            text: entry.title.trim()
            color: Style.textPrimary
            font.pixelSize: Style.fontTitle
            font.bold: true
            wrapMode: Text.Wrap
        }
        Text {
            objectName: "publishDate"
            text: entry.publishDate.trim()
            visible: text !== ""
            color: Style.textSecondary
            font.pixelSize: Style.fontSmall
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
    }
}
