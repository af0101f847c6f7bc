import QtQuick 2.15
import QtQuick.Window 2.15
import QtQuick.Controls 2.15
import "qrc:/kepplugin/ui"
import "qrc:/kepplugin/ui/KepStyle.js" as Style

// The reference host's window: a tool bar to start and cancel a check, then the updates and
// news of the last answer drawn with the plug-in's own controls.
Window {
    id: window
    objectName: "hostWindow"

    readonly property int entryCount: host.updates.length + host.news.length

    function counts() {
        return (host.updates.length === 1 ? qsTr("1 update") : qsTr("%1 updates").arg(host.updates.length))
            + ", " + qsTr("%1 news").arg(host.news.length);
    }
    // The height that shows the whole answer without scrolling.
    readonly property int fullHeight: toolbar.height + flick.contentHeight

    width: Style.contentMaxWidth + 4 * Style.padding
    height: Style.contentMaxWidth
    visible: true
    title: qsTr("Tav: updates of installed products")
    color: Style.windowBackground

    Rectangle {
        id: toolbar
        anchors.left: parent.left
        anchors.right: parent.right
        height: bar.implicitHeight + 2 * Style.padding
        color: Style.cardBackground

        Row {
            id: bar
            anchors.left: parent.left
            anchors.verticalCenter: parent.verticalCenter
            anchors.leftMargin: 2 * Style.padding
            spacing: Style.spacing

            Button {
                objectName: "checkButton"
                text: qsTr("Check for updates")
                enabled: !host.busy
                onClicked: host.checkForUpdates()
            }
            Button {
                objectName: "cancelButton"
                text: qsTr("Cancel")
                visible: host.busy
                onClicked: kepplugin.cancelCurrentAction()
            }
            BusyIndicator {
                objectName: "busyIndicator"
                running: host.busy
                visible: host.busy
                height: parent.height
                width: height
            }
            Text {
                objectName: "statusLine"
                anchors.verticalCenter: parent.verticalCenter
                color: Style.textSecondary
                font.pixelSize: Style.fontNormal
                text: {
                    if (host.busy)
                        return host.productIndex > 0
                            ? qsTr("Checking product %1 of %2\u2026").arg(host.productIndex).arg(host.productCount)
                            : qsTr("Checking for updates\u2026");
                    switch (host.state) {
                    case "answered":
                    case "upToDate":
                        return window.counts();
                    case "offline":
                        return qsTr("%1, not all from the service").arg(window.counts());
                    case "cancelled":
                        return window.entryCount > 0 ? qsTr("Cancelled: showing the previous check") : "";
                    default:
                        return "";
                    }
                }
            }
        }

        Rectangle {
            anchors.left: parent.left
            anchors.right: parent.right
            anchors.bottom: parent.bottom
            height: Style.borderWidth
            color: Style.cardBorder
        }
    }

    Flickable {
        id: flick
        anchors.top: toolbar.bottom
        anchors.left: parent.left
        anchors.right: parent.right
        anchors.bottom: parent.bottom
        contentHeight: content.implicitHeight + 2 * Style.padding
        clip: true
        boundsBehavior: Flickable.StopAtBounds
        ScrollBar.vertical: ScrollBar {}

        Column {
            id: content
            y: Style.padding
            x: (flick.width - width) / 2
            width: Math.min(flick.width - 4 * Style.padding, Style.contentMaxWidth)
            spacing: Style.spacing

            StatusBanner {
                width: parent.width
                visible: !host.busy && host.state === "offline"
                reason: host.reason
                productCount: host.productCount
                cachedCount: host.cachedCount
                uncheckedCount: host.uncheckedCount
                cancelledCount: host.cancelledCount
            }

            EmptyState {
                width: parent.width
                visible: window.entryCount === 0
                kind: host.state
                reason: host.reason
                productIndex: host.productIndex
                productCount: host.productCount
                onRetryRequested: host.checkForUpdates()
            }

            SectionHeader {
                width: parent.width
                visible: host.updates.length > 0
                text: qsTr("Updates")
                count: host.updates.length
            }
            Repeater {
                model: host.updates
                delegate: UpdateEntry {
                    width: content.width
                    updateId: modelData.updateId
                    title: modelData.title
                    publishDate: modelData.publishDate
                    downloadSize: modelData.downloadSize
                    description: modelData.description
                    infoUrl: modelData.infoUrl
                    oneClickSupported: modelData.oneClickSupported
                    relatedUpdates: modelData.relatedUpdates
                    onMoreInformationRequested: Qt.openUrlExternally(url)
                }
            }

            Item {
                width: parent.width
                height: Style.padding
                visible: host.updates.length > 0 && host.news.length > 0
            }

            SectionHeader {
                width: parent.width
                visible: host.news.length > 0
                text: qsTr("News")
                count: host.news.length
            }
            Repeater {
                model: host.news
                delegate: NewsEntry {
                    width: content.width
                    newsId: modelData.newsId
                    title: modelData.title
                    publishDate: modelData.publishDate
                    description: modelData.description
                }
            }
        }
    }
}
